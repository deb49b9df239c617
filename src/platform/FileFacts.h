// The few things about files that the C libraries of the hosts spell differently.

#pragma once

#include "foundation/value/Value.h"

#include <sys/stat.h>

namespace sentrova::platform {

Date modificationDate(const struct stat& status);

// Makes the content of an open file survive a loss of power. Returns 0 or the error number.
int flushToDisk(int descriptor);

}  // namespace sentrova::platform
