#include "platform/OperatingSystem.h"

#include <charconv>

namespace sentrova::platform {

namespace {

// Removes the number at the start of the text, with the dot after it, and returns the number.
std::int64_t takeNumber(std::string_view& text) {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    if (text.starts_with('.')) {
        text.remove_prefix(1);
    }
    return number;
}

}  // namespace

OperatingSystemVersion versionFromText(std::string_view text) {
    OperatingSystemVersion version;
    version.major = takeNumber(text);
    version.minor = takeNumber(text);
    version.patch = takeNumber(text);
    return version;
}

}  // namespace sentrova::platform
