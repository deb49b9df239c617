// Facts about the running system.

#pragma once

#include "foundation/files/FileSystem.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace sentrova::platform {

struct OperatingSystemVersion {
    std::int64_t major = 0;
    std::int64_t minor = 0;
    std::int64_t patch = 0;
};

// The version that a text such as "10.15.7" names; what it leaves out is 0.
OperatingSystemVersion versionFromText(std::string_view text);

// The version of macOS; nothing on a host without one. A host may keep it in a file.
std::optional<OperatingSystemVersion> operatingSystemVersion(FileSystem& files);

// The name that a person gave to the computer.
std::string localizedHostName();

// The number by which the system's tools know the calling thread.
std::uint64_t currentThreadId();

// A time that never goes back and stands still while the machine sleeps.
std::chrono::steady_clock::time_point timeAwake();

}  // namespace sentrova::platform
