// The change handlers of ServerCommunicator: they apply what a synchronisation changed.

#include "collection/EventCollectionSchedule.h"
#include "collection/EventCollectorRealtime.h"
#include "core/GlobalConstants.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "forwarding/SecurityUtil.h"
#include "foundation/run/Current.h"
#include "foundation/run/Sleep.h"
#include "operations/MainQueue.h"
#include "operations/ScheduleHandler.h"
#include "sync/ServerCommunicator.h"

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("ServerCommunicator");

constexpr const char* kDefaultFetchInterval = "10800";
constexpr std::chrono::seconds kRealtimeEndAwaited{10};
constexpr std::size_t kIdentityPrefix = 32;

bool differs(const Value& newValue, const Value& oldValue) {
    return !newValue.isNull() && newValue != oldValue;
}

template <class Operation>
void addToMainQueue() {
    auto operation = std::make_shared<Operation>();
    operation->setName(Operation::kOperationName);
    Current<MainQueue>::get().add(operation);
}

void cancelOnMainQueue(const char* name) {
    Current<MainQueue>::get().cancel(name);
}

std::string inConfFolder(std::string_view file) {
    return fmt::format("{}/{}", GlobalVariables::getInstance().confPath(), file);
}

// Gives a task a new interval, in two steps, because a log line comes between them. A task that already runs by the
// interval keeps its timer. Otherwise a server that repeats the same change in each answer would reset the timer at
// each sync, and the task would never fire.
class Retiming {
  public:
    // Stops the task.
    Retiming(std::string_view task, const Value& interval)
        : task_(task), seconds_(interval.integerValue()), keepsTimer_(ScheduleHandler::runsEvery(seconds_, task)) {
        if (!keepsTimer_) {
            ScheduleHandler::stopTask(task_);
        }
    }

    // Stores the interval and starts the task.
    void finish() const {
        ScheduleHandler::UpdateTaskWithName(task_, ScheduleHandler::kIntervalSeconds, seconds_);
        if (!keepsTimer_) {
            ScheduleHandler::startTask(task_);
        }
    }

  private:
    const std::string_view task_;
    const Value seconds_;
    const bool keepsTimer_;
};

// The printable ASCII prefix of the stored identity, made from random bytes. Decryption ignores it.
std::string identityPrefix(const Data& random) {
    constexpr char kFirst = '!';
    constexpr std::uint8_t kCount = '~' - '!' + 1;
    std::string prefix;
    for (const auto byte : random) {
        prefix += static_cast<char>(kFirst + byte % kCount);
    }
    prefix.resize(kIdentityPrefix, kFirst);
    return prefix;
}

}  // namespace

void ServerCommunicator::ConfigurationChangesCheckWithOldData(const PropertyListHandler& oldData, Dictionary& newData) {
    const auto oldGuid = oldData.GetValueForKey(GlobalConstants::AGENT_GUID);
    const auto& newGuid = newData[GlobalConstants::AGENT_GUID];
    if (oldGuid.isNull()) {
        if (!newGuid.isNull()) {
            kLog.info("First Time Configuration");
        }
        return;
    }
    if (oldGuid != newGuid || newData.contains(GlobalConstants::DOMAIN_ID)) {
        return;
    }
    kLog.info("Agent Deleted/Unconfigured");
    PropertyListHandler::change(inConfFolder(GlobalConstants::SERVER_INFO_FILE), [](Dictionary& serverInfo) {
        serverInfo.remove(GlobalConstants::AGENT_GUID);
        serverInfo.remove(GlobalConstants::DOMAIN_NAME);
    });
    Current<MainQueue>::get().stop();
}

void ServerCommunicator::StateChangesCheckWithOldData(const PropertyListHandler& oldData, Dictionary& newData) {
    const auto& enabled = newData[GlobalConstants::IS_ENABLED];
    if (!differs(enabled, oldData.GetValueForKey(GlobalConstants::IS_ENABLED))) {
        kLog.info("No State change");
    } else if (enabled.boolValue()) {
        kLog.info("State Changed to enabled");
        addToMainQueue<EventCollectionSchedule>();
        addToMainQueue<EventCollectorRealtime>();
    } else {
        kLog.info("State Changed to disabled");
        cancelOnMainQueue(EventCollectorRealtime::kOperationName);
        cancelOnMainQueue(EventCollectionSchedule::kOperationName);
    }
}

void ServerCommunicator::IntervalChangesCheckWithOldData(const PropertyListHandler& oldData, Dictionary& newData) {
    const bool wasRealTime = oldData.GetValueForKey(GlobalConstants::REALTIME).boolValue();
    const bool isRealTime = newData[GlobalConstants::REALTIME].boolValue();
    bool realTimeWasDisabled = false;
    if (wasRealTime != isRealTime) {
        kLog.info("Realtimestate has been changed");
        if (isRealTime) {
            // The two characters at the end are part of the established text.
            kLog.info("Running schedule once to read old events\u00A0\u0330");
            addToMainQueue<EventCollectionSchedule>();
            kLog.info("Realtime enabled starting listening");
            addToMainQueue<EventCollectorRealtime>();
            ScheduleHandler::stopTask(ScheduleHandler::kEventCollection);
        } else {
            kLog.info("Realtime disabled stopping listening");
            cancelOnMainQueue(EventCollectorRealtime::kOperationName);
            // While realtime collection was on, the batch task did not repeat.
            ScheduleHandler::UpdateTaskWithName(ScheduleHandler::kEventCollection, ScheduleHandler::kRepeat, "true");
            realTimeWasDisabled = true;
        }
    }
    const auto oldInterval = oldData.GetValueForKey(GlobalConstants::FETCH_INTERVAL);
    const auto& newInterval = newData[GlobalConstants::FETCH_INTERVAL];
    if (realTimeWasDisabled || oldInterval.isNull() || oldInterval != newInterval) {
        const auto interval = newInterval.isNull() ? Value(kDefaultFetchInterval) : newInterval;
        const Retiming retiming(ScheduleHandler::kEventCollection, interval);
        kLog.info("Fetch interval has been changed updating schedule to {}", interval);
        retiming.finish();
    }
}

void ServerCommunicator::NATChangesWithOldData(const PropertyListHandler& oldData, Dictionary& newData) {
    const auto oldName = oldData.GetValueForKey(GlobalConstants::NAT_SERVER);
    const auto& newName = newData[GlobalConstants::NAT_SERVER];
    const bool isSame = !oldName.isNull() && !newName.isNull() && oldName.description() == newName.description();
    if (isSame) {
        return;
    }
    const auto relay = relayOf(newName.isNull() ? std::nullopt : std::optional(newName.description()));
    const auto type = relay == Relay::none ? ConnectionType::agentConnector : ConnectionType::relay;
    GlobalVariables::getInstance().setType(static_cast<std::uint64_t>(type));
}

void ServerCommunicator::SyncTimeCheckWithOldData(const PropertyListHandler& oldData, Dictionary& newData) {
    const auto& syncTime = newData[GlobalConstants::SYNCTIME];
    if (differs(syncTime, oldData.GetValueForKey(GlobalConstants::SYNCTIME))) {
        Retiming(kTaskName, syncTime).finish();
        kLog.info("SyncTime has been updated to {}", syncTime);
    }
}

void ServerCommunicator::realTimeReinitialiseCheckWithOldData(const PropertyListHandler& oldData, Dictionary& newData) {
    const auto& events = newData[GlobalConstants::EVENTS_TO_READ];
    if (!differs(events, oldData.GetValueForKey(GlobalConstants::EVENTS_TO_READ))) {
        return;
    }
    kLog.info("Events to be audited are changed to {}", events);
    const bool isRealTime = newData[GlobalConstants::REALTIME].boolValue();
    if (!isRealTime || !oldData.GetValueForKey(GlobalConstants::REALTIME).boolValue()) {
        return;
    }
    kLog.info("Change in events to be audited, reinitiatizing real time collection");
    cancelOnMainQueue(EventCollectorRealtime::kOperationName);
    while (Current<MainQueue>::get().isExecuting(EventCollectorRealtime::kOperationName)) {
        kLog.info("Sleeping for 10 seconds");
        sleepFor(Current<Clock>::get(), kRealtimeEndAwaited);
    }
    addToMainQueue<EventCollectorRealtime>();
}

void ServerCommunicator::AuthIDChangesWithOldData(const PropertyListHandler& oldData, Dictionary& newData) {
    const auto identity = newData[GlobalConstants::AGENT_AUTHENTICATION_ID];
    if (!oldData.GetValueForKey(GlobalConstants::AGENT_AUTHENTICATION_ID).isNull() || identity.isNull()) {
        return;
    }
    const auto& agentUid = newData[GlobalConstants::AGENT_UID];
    const auto passPhrase =
        agentUid.isNull() ? std::string(GlobalConstants::FALLBACK_PASS_PHRASE) : agentUid.description();
    const auto random = SecurityUtil::randomBytes(kIdentityPrefix);
    if (!random) {
        kLog.debug("Error while generating secrandomcopybytes");
    }
    const auto prefix = identityPrefix(random.value_or(Data()));
    const auto cipher = SecurityUtil::encrypt(identity.description(), passPhrase, prefix);
    if (!cipher) {
        kLog.error("{}", cipher.error().description);
        return;
    }
    PropertyListHandler::change(inConfFolder(GlobalConstants::MY_CONFIGURATIONS_FILE),
                                GlobalConstants::AGENT_AUTHENTICATION_ID, prefix + cipher->value_or(""));
    newData.remove(GlobalConstants::AGENT_AUTHENTICATION_ID);
}

}  // namespace sentrova
