#include "collection/EventContext.h"

#include "collection/currentLoginUtility.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "foundation/run/Current.h"
#include "foundation/run/Sleep.h"

#include <chrono>

namespace sentrova {

namespace {

constexpr LogSource kLog("Event");
constexpr std::chrono::seconds kTouchIdWait{3};

class AgentContext final : public EventContext {
  public:
    std::optional<std::string> domainName() override { return DomainUtil::getDomainName(); }
    std::optional<std::string> hostName() override { return GlobalVariables::getInstance().hostName(); }
    std::string userName(std::uint32_t id) override { return DomainUtil::getUserNameFromID(id); }
    std::string groupName(std::uint32_t id) override { return DomainUtil::getGroupNameFromID(id); }
    DomainUtil::UserDetails userDetails(const std::string& user) override { return DomainUtil::getUserDetails(user); }

    void addToLoginHistory(const Dictionary& entry, double time) override {
        currentLoginUtility::addToLoginHistory(entry, time);
    }
    std::optional<Dictionary> logonUserAt(std::int64_t time) override {
        return currentLoginUtility::getLogonUserAtTime(time);
    }
    void awaitLogonUser() override {
        if (GlobalVariables::getInstance().isRealTime()) {
            // The record that names the user follows within moments.
            kLog.debug("Waiting for 3 sec");
            sleepFor(Current<Clock>::get(), kTouchIdWait);
            kLog.debug("completed Waiting for 3 sec");
        }
    }
};

// Has no state.
AgentContext theAgent;

}  // namespace

EventContext& EventContext::ofAgent() {
    return theAgent;
}

}  // namespace sentrova
