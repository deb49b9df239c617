// Facts about the running system.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace sentrova::platform {

struct OperatingSystemVersion {
    std::int64_t major = 0;
    std::int64_t minor = 0;
    std::int64_t patch = 0;
};

// The version of macOS; nothing on a host without one.
std::optional<OperatingSystemVersion> operatingSystemVersion();

// The name that a person gave to the computer.
std::string localizedHostName();

// The number by which the system's tools know the calling thread.
std::uint64_t currentThreadId();

}  // namespace sentrova::platform
