// JSON texts: a text that can be read can be written and reads as the same.

#include "foundation/formats/Json.h"
#include "foundation/value/Text.h"
#include "fuzz/Fuzz.h"
#include "platform/icu/IcuEncodings.h"

namespace sentrova::testing {

void fuzz(std::span<const std::uint8_t> input) {
    const auto value = Json::parse(asText(input));
    if (!value) {
        require(!value.error().description.empty(), "a refusal has a reason");
        return;
    }
    require(isValidUtf8(value->description()), "the description of a value is text");
    const auto text = Json::write(*value);
    require(static_cast<bool>(text), "what is read can be written");
    const auto again = Json::parse(*text);
    require(again && *again == *value, "what is written reads as the same", *text);
    // Requests are sent as ASCII.
    static const auto encodings = platform::makeIcuEncodings();
    const auto sent = Json::parse(asciiLossy(*text, *encodings));
    require(sent && (sent->array() == nullptr) == (value->array() == nullptr), "what is sent is JSON", *text);
}

}  // namespace sentrova::testing
