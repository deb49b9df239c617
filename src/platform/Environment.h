#pragma once

#include <string>

namespace sentrova::platform {

// The process's environment variables, for its child processes. The C library owns the array.
char** environment();

// The path of the running program's file, without links. Empty if the system does not tell it.
std::string programPath();

}  // namespace sentrova::platform
