// Converts between JSON texts (RFC 8259) and values. Safe from any thread.

#pragma once

#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace sentrova {

class Json {
  public:
    // Texts from the network beyond these limits are refused.
    struct Limits {
        std::size_t bytes = 16 * 1024 * 1024;
        std::size_t depth = 128;
    };

    // The value of a text in UTF-8 whose root is a dictionary or an array. An integer beyond 64 bits becomes a real. Of
    // equal keys the last one counts. Fails with the reason on anything else.
    static Result<Value> parse(std::string_view text, const Limits& limits);
    static Result<Value> parse(std::string_view text) { return parse(text, Limits()); }

    // The value as compact JSON. Fails with the position of the offending value if the root is not a dictionary or an
    // array, and on a date, data, an infinite number or NaN, text that is not UTF-8, or deeper nesting than parse
    // accepts.
    static Result<std::string> write(const Value& value);
};

}  // namespace sentrova
