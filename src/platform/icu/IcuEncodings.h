// Encodings by the ICU library.

#pragma once

#include "foundation/value/Encodings.h"

#include <memory>

namespace sentrova::platform {

std::unique_ptr<Encodings> makeIcuEncodings();

}  // namespace sentrova::platform
