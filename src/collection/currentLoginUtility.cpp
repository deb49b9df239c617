#include "collection/currentLoginUtility.h"

#include "collection/ConsoleWatch.h"
#include "collection/LoginHistory.h"
#include "core/LogSource.h"
#include "foundation/run/Current.h"

namespace sentrova {

namespace {

constexpr LogSource kLog("currentLoginUtility");

// The first sync may schedule a pass that is due before the agent calls init, so every use opens the history.
LoginHistory& history() {
    auto& history = Current<LoginHistory>::get();
    history.open();
    return history;
}

}  // namespace

void currentLoginUtility::initialize() {
    history();
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
    history().addConsoleOwner();
}

void currentLoginUtility::addToLoginHistory(const Dictionary& entry, double withTimestamp) {
    history().add(entry, withTimestamp);
}

std::optional<Dictionary> currentLoginUtility::getLogonUserAtTime(std::int64_t time) {
    return history().find(time);
}

void currentLoginUtility::flush() {
    Current<LoginHistory>::get().flush();
}

}  // namespace sentrova
