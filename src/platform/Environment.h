#pragma once

namespace sentrova::platform {

// The process's environment variables, for its child processes. The C library owns the array.
char** environment();

}  // namespace sentrova::platform
