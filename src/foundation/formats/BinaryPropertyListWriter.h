// Makes a binary property list out of objects, each added before those that contain it.

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
    // The number of an object that was added.
    using Number = std::uint32_t;

    Number addBoolean(bool value);
    Number addInteger(std::int64_t value);
    Number addReal(double value);
    // The text must be UTF-8.
    Number addText(std::string_view text);
    // A keyed archive's reference to its own object of that index.
    Number addUid(std::uint32_t index);
    Number addArray(const std::vector<Number>& elements);
    Number addDictionary(const std::vector<std::pair<Number, Number>>& entries);

    // The bytes of the list whose root is the object.
    Data finish(Number root) const;

  private:
    struct Object {
        // Where its bytes and its references end; they begin where those of the object before end.
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
