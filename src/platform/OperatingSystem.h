// Facts about the running system. Safe from any thread.

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

// Parses a version such as "10.15.7". Missing parts are 0.
OperatingSystemVersion versionFromText(std::string_view text);

// The version of macOS. Absent on a host without one. Linux reads it from a file of the system volume.
std::optional<OperatingSystemVersion> operatingSystemVersion(FileSystem& files);

// The computer's name as its user set it, or the host name; empty if it is unknown.
std::string localizedHostName();

// The system's id of the calling thread, as debuggers and other tools show it.
std::uint64_t currentThreadId();

// A monotonic time that stands still while the machine sleeps.
std::chrono::steady_clock::time_point timeAwake();

}  // namespace sentrova::platform
