// JSON on standard output.

#pragma once

#include "control/Console.h"
#include "foundation/value/Value.h"

namespace sentrova::control {

// Prints the value as one line of JSON. Throws std::runtime_error if it cannot be JSON.
void printJson(Console& console, const Value& value);

}  // namespace sentrova::control
