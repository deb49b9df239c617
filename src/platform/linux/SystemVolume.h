// The folder that stands for the Mac's system volume on this host.

#pragma once

#include <string>

namespace sentrova::platform {

// From SENTROVA_SYSTEM_VOLUME, without a trailing slash. Empty if the variable is unset or "/".
std::string systemVolume();

}  // namespace sentrova::platform
