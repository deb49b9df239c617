#include "platform/OperatingSystem.h"

#include "foundation/files/FileSystem.h"
#include "foundation/formats/PropertyList.h"
#include "platform/SystemPath.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <array>

namespace sentrova::platform {

std::optional<OperatingSystemVersion> operatingSystemVersion(FileSystem& files) {
    const auto bytes = files.read(systemPath("/System/Library/CoreServices/SystemVersion.plist"));
    if (!bytes) {
        return std::nullopt;
    }
    const auto list = PropertyList::parse(*bytes);
    const auto* const root = list ? list->dictionary() : nullptr;
    const auto* const version = root ? (*root)["ProductVersion"].string() : nullptr;
    if (!version) {
        return std::nullopt;
    }
    return versionFromText(*version);
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

std::chrono::steady_clock::time_point timeAwake() {
    return std::chrono::steady_clock::now();
}

}  // namespace sentrova::platform
