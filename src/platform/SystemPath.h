// Where things of the operating system lie.

#pragma once

#include <string>
#include <string_view>

namespace sentrova::platform {

// The path on this host of something that belongs to the Mac's system ("/var/audit", "/dev/console", ...). Paths of the
// agent's own folders come back unchanged.
std::string systemPath(std::string_view path);

}  // namespace sentrova::platform
