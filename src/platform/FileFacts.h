// File operations that the hosts' C libraries spell differently.

#pragma once

#include "foundation/value/Value.h"

#include <sys/stat.h>

namespace sentrova::platform {

Date modificationDate(const struct stat& status);

// Flushes an open file to the disk, so that its content survives a power loss. Returns 0 or the error number.
int flushToDisk(int descriptor);

}  // namespace sentrova::platform
