#include "collection/currentLoginUtility.h"

#include "collection/ConsoleWatch.h"
#include "collection/LoginHistory.h"
#include "core/LogSource.h"
#include "foundation/run/Current.h"

namespace sentrova {

namespace {
constexpr LogSource kLog("currentLoginUtility");
}  // namespace

void currentLoginUtility::initialize() {
    Current<LoginHistory>::get().open();
}

void currentLoginUtility::init() {
    initialize();
    Current<ConsoleWatch>::get().begin([] { gotChanges(); });
}

void currentLoginUtility::suspend() {
    Current<ConsoleWatch>::get().suspend();
}

void currentLoginUtility::gotChanges() {
    kLog.debug("Login has been made");
    getCurrentUser();
}

void currentLoginUtility::getCurrentUser() {
    Current<LoginHistory>::get().addConsoleOwner();
}

void currentLoginUtility::addToLoginHistory(const Dictionary& entry, double withTimestamp) {
    Current<LoginHistory>::get().add(entry, withTimestamp);
}

std::optional<Dictionary> currentLoginUtility::getLogonUserAtTime(std::int64_t time) {
    return Current<LoginHistory>::get().find(time);
}

void currentLoginUtility::flush() {
    Current<LoginHistory>::get().flush();
}

}  // namespace sentrova
