// Facts about the system and the time, as numbers and as text. Safe from any thread.

#pragma once

#include "foundation/value/Value.h"

#include <string>
#include <string_view>

namespace sentrova {

class Utilities {
  public:
    Utilities() = delete;

    // The system's version under "majorVersion", "minorVersion" and "patchVersion"; three zeros where there is none.
    static Dictionary getOSVersion();
    // macOS 10.15 and everything after it.
    static bool isSupportedOSVersion();

    // The current time in a Unicode date pattern, in the device's zone.
    static std::string getCurrentTimeInFormat(std::string_view format);
    // The seconds since 1970, in decimal, of a time in the device's zone; "0" for a text that is not in the format.
    static std::string converStringToEpoch(std::string_view text, std::string_view withFormat);
    // Date and time in their long styles.
    static std::string getTimeFromEpoch(double seconds);
};

}  // namespace sentrova
