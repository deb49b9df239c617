// JSON texts (RFC 8259) from and into values.
//
// Safe from any thread.

#pragma once

#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace sentrova {

class Json {
  public:
    // What a text may be at the most before it is refused: texts come from the network.
    struct Limits {
        std::size_t bytes = 16 * 1024 * 1024;
        std::size_t depth = 128;
    };

    // The value of the text: UTF-8, a dictionary or array outermost. An integer beyond 64 bits becomes a real. Of equal
    // keys the last one counts. Fails, with the reason, on anything else.
    static Result<Value> parse(std::string_view text, const Limits& limits);
    static Result<Value> parse(std::string_view text) { return parse(text, Limits()); }

    // The value as compact JSON. Fails, naming the culprit, unless a dictionary or array is outermost, with no dates,
    // no data, no infinite numbers, no text that is not UTF-8 and no nesting beyond what parse accepts below it.
    static Result<std::string> write(const Value& value);
};

}  // namespace sentrova
