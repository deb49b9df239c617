// The names that the C library's databases of users and groups have for ids.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace sentrova::platform {

// Nothing for an id without an entry. Safe from any thread.
std::optional<std::string> databaseUserName(std::uint32_t id);
std::optional<std::string> databaseGroupName(std::uint32_t id);

}  // namespace sentrova::platform
