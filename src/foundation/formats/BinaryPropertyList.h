// A binary property list as the table of numbered objects that it is, read in place.
//
// Objects refer to one another by number and may be shared, so that a short file can stand for an endless value. That
// is why containers and texts count, in full, each time that they are read: beyond PropertyList's limits the reader
// gives up.
// Every function throws FormatError on malformed input.

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

    // One object: a value of its own, a reference of a keyed archive, or a container of other objects.
    struct Object {
        enum class Kind { value, uid, array, dictionary };

        Kind kind = Kind::value;
        Value value;
        // What a uid holds: an index into the archive's own table.
        std::uint64_t uid = 0;
        // Elements of an array, entries of a dictionary.
        std::size_t count = 0;
        // Where the container's references begin, in bytes.
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

    // The object with all that it refers to; throws at a uid, which has no value.
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

    // The length of what follows; moves the position past it.
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
