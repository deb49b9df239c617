// Dates as text beyond plain patterns: the part of DateFormat that a library of the host does.

#pragma once

#include "foundation/value/Date.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace sentrova {

// Works in the device's time zone, as it was when zoneChanged was called last, or at the first call. For one thread at
// a time. Dates are whole milliseconds.
class DateLibrary {
  public:
    virtual ~DateLibrary() = default;

    // Empty when the pattern is none.
    virtual std::string format(std::string_view pattern, Date date) = 0;
    // As DateFormat::parse.
    virtual std::optional<Date> parse(std::string_view pattern, std::string_view text) = 0;
    virtual std::string longStyle(Date date) = 0;
    virtual void zoneChanged() = 0;

  protected:
    DateLibrary() = default;
    DateLibrary(const DateLibrary&) = default;
    DateLibrary& operator=(const DateLibrary&) = default;
};

}  // namespace sentrova
