// How much memory this process uses.

#pragma once

#include <cstdint>
#include <optional>

namespace sentrova::platform {

// The resident memory in bytes. Absent if the system does not tell it.
std::optional<std::uint64_t> residentMemory();

}  // namespace sentrova::platform
