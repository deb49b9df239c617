// Property lists in both forms: a list that can be read can be written as XML and reads as the same.

#include "foundation/formats/PropertyList.h"
#include "foundation/value/Text.h"
#include "fuzz/Fuzz.h"
#include "platform/icu/IcuEncodings.h"

namespace sentrova::testing {

void fuzz(std::span<const std::uint8_t> input) {
    static const auto encodings = platform::makeIcuEncodings();
    const auto value = PropertyList::parse(input, encodings.get());
    if (!value) {
        require(!value.error().description.empty(), "a refusal has a reason");
        return;
    }
    require(isValidUtf8(value->description()), "the description of a value is text");
    const bool isBinary = asText(input).starts_with("bplist");
    const auto written = PropertyList::writeXml(*value);
    if (!written) {
        // Binary lists may contain control characters and distant dates, which XML cannot represent.
        require(isBinary, "what is read as XML is written as XML", written.error().description);
        return;
    }
    const auto again = PropertyList::parse(*written);
    require(static_cast<bool>(again), "what is written reads", asText(*written));
    const auto text = PropertyList::writeXml(*again);
    require(text && *text == *written, "what is written reads as the same", asText(*written));
    // Fractions of a second and NaN are equal only as texts.
    if (!isBinary && asText(*written).find("nan") == std::string_view::npos) {
        require(*again == *value, "the values are the same", asText(*written));
    }
}

}  // namespace sentrova::testing
