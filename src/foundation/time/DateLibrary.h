// The part of DateFormat that a library of the host does: dates beyond plain patterns.

#pragma once

#include "foundation/value/Date.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace sentrova {

// Uses the device's time zone as it was at the latest call of zoneChanged, or at first use. For one thread at a time.
// Dates are whole milliseconds.
class DateLibrary {
  public:
    virtual ~DateLibrary() = default;

    // Empty if the pattern is invalid.
    virtual std::string format(std::string_view pattern, Date date) = 0;
    // Like DateFormat::parse.
    virtual std::optional<Date> parse(std::string_view pattern, std::string_view text) = 0;
    virtual std::string longStyle(Date date) = 0;
    virtual void zoneChanged() = 0;

  protected:
    DateLibrary() = default;
    DateLibrary(const DateLibrary&) = default;
    DateLibrary& operator=(const DateLibrary&) = default;
};

}  // namespace sentrova
