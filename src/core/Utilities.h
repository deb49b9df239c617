// The system's version, and the time as text. Safe from any thread.

#pragma once

#include "foundation/value/Value.h"

#include <string>
#include <string_view>

namespace sentrova {

class Utilities {
  public:
    Utilities() = delete;

    // The system's version under "majorVersion", "minorVersion" and "patchVersion"; all 0 if it is unknown.
    static Dictionary getOSVersion();
    // Whether the system is macOS 10.15 or later.
    static bool isSupportedOSVersion();

    // The current time in a Unicode date pattern, in the device's time zone.
    static std::string getCurrentTimeInFormat(std::string_view format);
    // Parses a time in the device's time zone and returns the seconds since 1970 in decimal. "0" if the text does not
    // match the format.
    static std::string converStringToEpoch(std::string_view text, std::string_view withFormat);
    // The date of that many seconds since 1970, with date and time in the locale's long style.
    static std::string getTimeFromEpoch(double seconds);
};

}  // namespace sentrova
