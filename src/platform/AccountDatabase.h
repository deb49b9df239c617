// Looks up names of users and groups in the C library's databases.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace sentrova::platform {

// The name of an id. Absent for an id without an entry. Safe from any thread.
std::optional<std::string> databaseUserName(std::uint32_t id);
std::optional<std::string> databaseGroupName(std::uint32_t id);

}  // namespace sentrova::platform
