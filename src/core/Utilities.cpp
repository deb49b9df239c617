#include "core/Utilities.h"

#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "foundation/run/Clock.h"
#include "foundation/run/Current.h"
#include "foundation/time/DateFormat.h"
#include "platform/OperatingSystem.h"

namespace sentrova {

namespace {
constexpr LogSource kLog("Utilities");
}  // namespace

Dictionary Utilities::getOSVersion() {
    const auto version =
        platform::operatingSystemVersion(Current<FileSystem>::get()).value_or(platform::OperatingSystemVersion());
    Dictionary dictionary;
    dictionary.set(GlobalConstants::MAJOR_VERSION, version.major);
    dictionary.set(GlobalConstants::MINOR_VERSION, version.minor);
    dictionary.set(GlobalConstants::PATCH_VERSION, version.patch);
    return dictionary;
}

bool Utilities::isSupportedOSVersion() {
    const auto version = getOSVersion();
    const auto major = version[GlobalConstants::MAJOR_VERSION].integerValue();
    const auto minor = version[GlobalConstants::MINOR_VERSION].integerValue();
    const bool supported = (major == 10 && minor > 14) || major >= 11;
    kLog.info("isSupportedOsVersion={:d}", supported);
    return supported;
}

std::string Utilities::getCurrentTimeInFormat(std::string_view format) {
    return Current<DateFormat>::get().format(format, Current<Clock>::get().wallTime());
}

std::string Utilities::converStringToEpoch(std::string_view text, std::string_view withFormat) {
    const auto date = Current<DateFormat>::get().parse(withFormat, text);
    return Value(date ? epochSecondsExact(*date) : 0.0).description();
}

std::string Utilities::getTimeFromEpoch(double seconds) {
    return Current<DateFormat>::get().longStyle(dateFromEpoch(seconds));
}

}  // namespace sentrova
