// The program sentrovactl: its arguments, and the commands that they name.

#pragma once

#include "control/Console.h"

#include <span>

namespace sentrova::control {

// Runs the command that the arguments (those after the program's name) name, and returns the exit status.
// `programFolder` is the folder of the running program; the installation is the folder above it, unless the arguments
// name another one.
int runProgram(std::span<const char* const> arguments, const std::string& programFolder, Console& console);

}  // namespace sentrova::control
