// Date patterns by the ICU library.

#pragma once

#include "foundation/time/DateLibrary.h"

#include <memory>

namespace sentrova::platform {

std::unique_ptr<DateLibrary> makeIcuDates();

}  // namespace sentrova::platform
