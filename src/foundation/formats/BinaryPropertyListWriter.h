// Writes a binary property list. Each object is added before the containers that hold it. For one thread at a time.

#pragma once

#include "foundation/value/Value.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

namespace sentrova {

class BinaryPropertyListWriter {
  public:
    // The number of an added object.
    using Number = std::uint32_t;

    Number addBoolean(bool value);
    Number addInteger(std::int64_t value);
    Number addReal(double value);
    // The text must be UTF-8.
    Number addText(std::string_view text);
    // A reference inside a keyed archive: an index into its "$objects".
    Number addUid(std::uint32_t index);
    Number addArray(const std::vector<Number>& elements);
    Number addDictionary(const std::vector<std::pair<Number, Number>>& entries);

    // The bytes of the whole list, with the object as its root.
    Data finish(Number root) const;

  private:
    struct Object {
        // The ends of the object's part of bytes_ and references_. The parts begin where those of the previous object
        // end.
        std::size_t bytesEnd = 0;
        std::size_t referencesEnd = 0;
    };

    Number close();
    void appendHead(unsigned kind, std::size_t length);
    void appendInteger(std::int64_t value);

    Data bytes_;
    std::vector<Number> references_;
    std::vector<Object> objects_;
};

}  // namespace sentrova
