// Reads a binary property list in place: a table of numbered objects.
//
// Objects refer to one another by number and may be shared, so a short file can describe an endless value. Therefore
// containers and texts count in full each time they are read, and the reader gives up beyond PropertyList's limits.
// Every function throws FormatError on malformed input. For one thread at a time.

#pragma once

#include "foundation/value/Value.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace sentrova {

class BinaryPropertyList {
  public:
    using Number = std::uint64_t;

    // One object: a simple value, a reference inside a keyed archive, or a container of other objects.
    struct Object {
        enum class Kind { value, uid, array, dictionary };

        Kind kind = Kind::value;
        Value value;
        // Of a uid: an index into the archive's "$objects".
        std::uint64_t uid = 0;
        // The number of elements in an array or entries in a dictionary.
        std::size_t count = 0;
        // The position in the file, in bytes, of the container's references.
        std::size_t references = 0;
    };

    static bool recognizes(std::span<const std::uint8_t> bytes);

    // The bytes must outlive the reader.
    explicit BinaryPropertyList(std::span<const std::uint8_t> bytes);

    Number root() const { return root_; }
    Object object(Number number);

    // Only for an index below the container's count.
    Number element(const Object& array, std::size_t index) const { return reference(array, index); }
    Number key(const Object& dictionary, std::size_t index) const { return reference(dictionary, index); }
    Number entry(const Object& dictionary, std::size_t index) const {
        return reference(dictionary, dictionary.count + index);
    }

    // The object with everything that it refers to. Throws on a uid, which has no value.
    Value value(Number number) { return value(number, 0); }

  private:
    Value value(Number number, std::size_t depth);
    Value dictionary(const Object& object, std::size_t depth);

    Object object(std::size_t at, unsigned kind, unsigned low);
    Value simple(unsigned low) const;
    Value integer(std::size_t at, unsigned exponent) const;
    Value real(std::size_t at, unsigned exponent) const;
    Value date(std::size_t at) const;
    Value data(std::size_t at, std::uint64_t length);
    Value text(std::size_t at, std::uint64_t length);
    Value wideText(std::size_t at, std::uint64_t length);
    Object container(Object::Kind kind, std::size_t at, std::uint64_t count);

    // The length of the object's content. Advances the position if the length is stored behind the first byte.
    std::uint64_t length(std::size_t& at, unsigned low) const;
    Number reference(const Object& container, std::size_t index) const;
    std::uint64_t bigEndian(std::size_t at, std::size_t size) const;
    std::span<const std::uint8_t> content(std::size_t at, std::uint64_t length);

    std::span<const std::uint8_t> bytes_;
    std::size_t objectsEnd_ = 0;
    std::size_t offsetSize_ = 0;
    std::size_t referenceSize_ = 0;
    std::uint64_t objects_ = 0;
    Number root_ = 0;
    std::size_t objectsLeft_;
    std::size_t bytesLeft_;
};

}  // namespace sentrova
