#include "platform/SystemPath.h"

#include "platform/linux/SystemVolume.h"

#include <algorithm>
#include <array>
#include <cstdlib>

namespace sentrova::platform {

std::string systemVolume() {
    // Safe with threads, because the agent never changes its environment.
    const char* const variable = std::getenv("SENTROVA_SYSTEM_VOLUME");  // NOLINT(concurrency-mt-unsafe)
    std::string folder = variable ? variable : "";
    while (folder.ends_with('/')) {
        folder.pop_back();
    }
    return folder;
}

std::string systemPath(std::string_view path) {
    // The parts of the Mac's system that the agent reads. All other paths belong to the installation.
    static constexpr std::array<std::string_view, 6> kOfTheSystem = {
        "/System/Library/CoreServices", "/var/audit",      "/dev",
        "/usr/sbin/dsconfigad",         "/var/db/dslocal", "/etc/security",
    };
    const bool ofTheSystem = std::ranges::any_of(kOfTheSystem, [path](std::string_view known) {
        return path == known || (path.starts_with(known) && path[known.size()] == '/');
    });
    return ofTheSystem ? systemVolume() + std::string(path) : std::string(path);
}

}  // namespace sentrova::platform
