// Maps paths of the Mac's operating system to this host.

#pragma once

#include <string>
#include <string_view>

namespace sentrova::platform {

// The path on this host of a file or folder of the Mac's system ("/var/audit", "/dev/console", ...). Paths of the
// agent's own folders are returned unchanged.
std::string systemPath(std::string_view path);

}  // namespace sentrova::platform
