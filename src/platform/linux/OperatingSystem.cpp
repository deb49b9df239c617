#include "platform/OperatingSystem.h"

#include "foundation/FileSystem.h"
#include "foundation/PropertyList.h"
#include "platform/SystemPath.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <charconv>

namespace sentrova::platform {

namespace {

// The number that the text begins with, which is taken off it together with the dot behind it.
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

std::optional<OperatingSystemVersion> operatingSystemVersion() {
    const auto bytes = FileSystem::shared().read(systemPath("/System/Library/CoreServices/SystemVersion.plist"));
    if (!bytes) {
        return std::nullopt;
    }
    const auto list = PropertyList::parse(*bytes);
    const auto* const root = list ? list->dictionary() : nullptr;
    const auto* const version = root ? (*root)["ProductVersion"].string() : nullptr;
    if (!version) {
        return std::nullopt;
    }
    std::string_view rest = *version;
    OperatingSystemVersion parsed;
    parsed.major = takeNumber(rest);
    parsed.minor = takeNumber(rest);
    parsed.patch = takeNumber(rest);
    return parsed;
}

std::string localizedHostName() {
    std::array<char, 256> name{};
    if (::gethostname(name.data(), name.size() - 1) != 0) {
        return {};
    }
    return name.data();
}

std::uint64_t currentThreadId() {
    thread_local const auto id = static_cast<std::uint64_t>(::syscall(SYS_gettid));
    return id;
}

}  // namespace sentrova::platform
