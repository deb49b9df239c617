#include "core/AgentServiceHandler.h"
#include "core/GlobalVariables.h"
#include "forwarding/SecurityUtil.h"
#include "operations/ConcurrentOperationAbstract.h"
#include "support/AgentFixture.h"
#include "sync/ServerCommunicator.h"

#include <algorithm>
#include <future>
#include <thread>

#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {

using namespace std::chrono_literals;

// Executes until it is told to complete; notes its cancel.
class StandIn final : public ConcurrentOperationAbstract {
  public:
    explicit StandIn(const char* name) : ConcurrentOperationAbstract(name) {}
    void start() override { started(); }
    void cancel() override { cancelOperation(); }
};

PropertyListHandler old(const Dictionary& content) {
    PropertyListHandler handler;
    handler.updateDictionary(content);
    return handler;
}

// A dictionary of one key, or of none where the value is absent.
Dictionary only(const char* key, const Value& value) {
    return value.isNull() ? Dictionary() : Dictionary{{key, value}};
}

}  // namespace

class ConfigurationChangeHandlersTest : public ::testing::Test, protected AgentFixture {
  protected:
    ~ConfigurationChangeHandlersTest() override {
        if (service_.joinable()) {
            AgentServiceHandler::stop();
            service_.join();
        }
    }

    void startService() {
        service_ = std::thread([] { AgentServiceHandler::start(); });
        ASSERT_TRUE(eventually([this] {
            return logged("[EventForwarder]") > 0 && logged("EventCollectionFiles start called") > 0 &&
                   logged("EventCollectorRealtime didn't run") > 0 &&
                   AgentServiceHandler::getOperationStatusOnMainQueue("EventForwarder");
        }));
        awaitEndOfBatch();
    }

    // While one collects, another of its name is not taken. That none is there any more only the log tells.
    void awaitEndOfBatch() {
        ASSERT_TRUE(eventually([this] {
            const auto before = logged("EventCollectionSchedule operation doesnot exists");
            return !AgentServiceHandler::getOperationStatusOnMainQueue("EventCollectionSchedule") &&
                   logged("EventCollectionSchedule operation doesnot exists") > before;
        }));
    }

    // An operation of the name at work on the main queue.
    std::shared_ptr<StandIn> addStandIn(const char* name) {
        auto operation = std::make_shared<StandIn>(name);
        AgentServiceHandler::addOperationToMainQueue(operation);
        EXPECT_TRUE(eventually([&] { return operation->isExecuting(); }));
        return operation;
    }

    // Begins anew, with an empty log.
    void fresh() {
        restart();
        for (const auto& entry : std::filesystem::directory_iterator(volume().logs())) {
            if (entry.is_regular_file()) {
                std::filesystem::remove(entry);
            }
        }
        writeConfiguration();
    }

    int added(const char* name) {
        return logged(std::string("OperationsHandler ") + name + " has been added to the queue");
    }

    Value taskInterval(std::string_view name) {
        const auto file = volume().readConfiguration("schedules.plist");
        for (const auto& task : *file["ScheduleTasks"].array()) {
            if ((*task.dictionary())["TaskName"] == Value(name)) {
                return (*task.dictionary())["IntervalSeconds"];
            }
        }
        return {};
    }

    std::thread service_;
};

TEST_F(ConfigurationChangeHandlersTest, AgentWhoseDomainIsGoneIsClearedAndStopped) {
    serverInfo.set("AgentGuid", "g");
    writeConfiguration();
    const struct {
        Value oldGuid;
        Value newGuid;
        Value domainId;
        bool first;
        bool removed;
    } cases[] = {
        {Value(), "g", Value(), true, false},      {Value(), "g", "1", true, false},
        {Value(), Value(), Value(), false, false}, {"g", "g", "1", false, false},
        {"g", "h", Value(), false, false},         {"g", Value(), Value(), false, false},
        {"g", "g", Value(), false, true},
    };
    for (const auto& test : cases) {
        fresh();
        auto answer = only("AgentGuid", test.newGuid);
        if (!test.domainId.isNull()) {
            answer.set("DomainID", test.domainId);
        }
        ServerCommunicator::ConfigurationChangesCheckWithOldData(old(only("AgentGuid", test.oldGuid)), answer);
        EXPECT_EQ(logged("[INFO]First Time Configuration"), test.first ? 1 : 0);
        EXPECT_EQ(logged("[INFO]Agent Deleted/Unconfigured"), test.removed ? 1 : 0);
        EXPECT_EQ(logged("AgentServiceHandler stop called"), test.removed ? 1 : 0);
        auto expected = serverInfo;
        if (test.removed) {
            expected.remove("AgentGuid");
            expected.remove("DomainName");
        }
        EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"), expected);
    }
}

TEST_F(ConfigurationChangeHandlersTest, RemovedAgentsServiceEnds) {
    startService();
    Dictionary answer = {{"AgentGuid", "g"}};
    ServerCommunicator::ConfigurationChangesCheckWithOldData(old({{"AgentGuid", "g"}}), answer);
    service_.join();
    EXPECT_FALSE(AgentServiceHandler::getOperationStatusOnMainQueue("EventForwarder"));
}

TEST_F(ConfigurationChangeHandlersTest, StateIsFollowedOnlyWhenItChanges) {
    startService();
    const std::pair<Value, Value> unchanged[] = {
        {true, true}, {1, true}, {false, false}, {true, Value()}, {Value(), Value()}};
    for (const auto& [before, after] : unchanged) {
        auto answer = only("isEnabled", after);
        ServerCommunicator::StateChangesCheckWithOldData(old(only("isEnabled", before)), answer);
    }
    EXPECT_EQ(logged("[INFO]No State change"), 5);

    // Both are started, whatever is said of realtime collection.
    const std::pair<Value, Value> enabled[] = {{false, true}, {Value(), true}};
    for (const auto& [before, after] : enabled) {
        auto answer = only("isEnabled", after);
        const auto begun = logged("EventCollectionFiles start called");
        ServerCommunicator::StateChangesCheckWithOldData(old(only("isEnabled", before)), answer);
        ASSERT_TRUE(eventually([&] { return logged("EventCollectionFiles start called") > begun; }));
        awaitEndOfBatch();
    }
    EXPECT_EQ(logged("[INFO]State Changed to enabled"), 2);
    EXPECT_EQ(added("EventCollectionSchedule"), 3);
    EXPECT_EQ(added("EventCollectorRealtime"), 3);
    ASSERT_TRUE(eventually([this] {
        return logged("EventCollectorRealtime didn't run") == 3 && logged("EventCollectionFiles start called") == 3;
    }));

    const auto batch = addStandIn("EventCollectionSchedule");
    const auto realtime = addStandIn("EventCollectorRealtime");
    auto answer = only("isEnabled", false);
    ServerCommunicator::StateChangesCheckWithOldData(old({{"isEnabled", true}}), answer);
    EXPECT_TRUE(batch->isCancelled() && realtime->isCancelled());
    const auto realtimeAt = log().rfind("OperationsHandler EventCollectorRealtime has been cancelled");
    const auto batchAt = log().rfind("OperationsHandler EventCollectionSchedule has been cancelled");
    EXPECT_LT(realtimeAt, batchAt);
    EXPECT_NE(batchAt, std::string::npos);
    EXPECT_EQ(logged("[INFO]State Changed to disabled"), 1);
    batch->completeOperation();
    realtime->completeOperation();
}

TEST_F(ConfigurationChangeHandlersTest, IntervalAndRealtimeDecideOnTheBatchTask) {
    const struct {
        const char* what;
        Value oldRealtime, newRealtime, oldInterval, newInterval;
        // The text of the new interval; null when the task is left alone.
        const char* retimed;
    } cases[] = {
        {"nothing", false, false, 600, 600, nullptr},       {"absent is false", Value(), false, 600, 600, nullptr},
        {"other", false, false, 600, 700, "700"},           {"other kind", false, false, 600, "600", "600"},
        {"none now", true, true, 600, Value(), "10800"},    {"never any", false, false, Value(), Value(), "10800"},
        {"first", false, false, Value(), "1200", "1200"},   {"realtime off", true, false, 600, 600, "600"},
        {"realtime gone", true, Value(), 600, 600, "600"},  {"realtime on", false, true, 600, 600, nullptr},
        {"realtime on, other", "no", "YES", 600, 60, "60"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.what);
        fresh();
        auto before = only("IsRealTime", test.oldRealtime);
        if (!test.oldInterval.isNull()) {
            before.set("FetchInterval", test.oldInterval);
        }
        auto answer = only("IsRealTime", test.newRealtime);
        if (!test.newInterval.isNull()) {
            answer.set("FetchInterval", test.newInterval);
        }
        ServerCommunicator::IntervalChangesCheckWithOldData(old(before), answer);
        const bool was = test.oldRealtime.boolValue();
        const bool is = test.newRealtime.boolValue();
        EXPECT_EQ(logged("[INFO]Realtimestate has been changed"), was != is ? 1 : 0);
        EXPECT_EQ(logged("[INFO]Realtime disabled stopping listening"), was && !is ? 1 : 0);
        EXPECT_EQ(logged("[INFO]Running schedule once to read old events\xC2\xA0\xCC\xB0\r\n"), !was && is ? 1 : 0);
        EXPECT_EQ(logged("[INFO]Realtime enabled starting listening"), !was && is ? 1 : 0);
        EXPECT_EQ(logged("EventCollection is not available in the list"), (test.retimed ? 1 : 0) + (!was && is ? 1 : 0))
            << "each stop of the task, which does not run";
        EXPECT_EQ(logged("Going to StartTask EventCollection"), test.retimed ? 1 : 0);
        if (test.retimed) {
            EXPECT_EQ(taskInterval("EventCollection"), Value(std::stoi(test.retimed)));
            EXPECT_EQ(logged(std::string("[INFO]Fetch interval has been changed updating schedule to ") + test.retimed),
                      1);
        } else {
            EXPECT_EQ(taskInterval("EventCollection"), Value(3600));
        }
    }
}

TEST_F(ConfigurationChangeHandlersTest, RealtimeThatIsSwitchedStartsBothCollectionsOrEndsTheLiveOne) {
    startService();
    Dictionary on = {{"IsRealTime", true}};
    ServerCommunicator::IntervalChangesCheckWithOldData(old({}), on);
    EXPECT_EQ(added("EventCollectionSchedule"), 2);
    EXPECT_EQ(added("EventCollectorRealtime"), 2);
    ASSERT_TRUE(eventually([this] { return logged("EventCollectorRealtime didn't run") == 2; }));
    const auto realtime = addStandIn("EventCollectorRealtime");
    Dictionary off = {{"IsRealTime", false}};
    ServerCommunicator::IntervalChangesCheckWithOldData(old(on), off);
    EXPECT_TRUE(realtime->isCancelled());
    realtime->completeOperation();
}

TEST_F(ConfigurationChangeHandlersTest, RelaysNameSetsTheTypeOfConnectionWhenItChanges) {
    constexpr std::uint64_t kUnchanged = 9;
    const struct {
        Value before, after;
        std::uint64_t type;
    } cases[] = {{"relay", "relay", kUnchanged},
                 {"-", "-", kUnchanged},
                 {"relay", "-", 1},
                 {"relay", "", 1},
                 {"-", "", 1},
                 {"-", "relay", 0},
                 {"a", "b", 0},
                 {"relay", Value(), 0},
                 {Value(), Value(), 0},
                 {Value(), "-", 1},
                 {Value(), "relay", 0}};
    for (const auto& test : cases) {
        GlobalVariables::getInstance().setType(kUnchanged);
        auto answer = only("NATServerName", test.after);
        ServerCommunicator::NATChangesWithOldData(old(only("NATServerName", test.before)), answer);
        EXPECT_EQ(GlobalVariables::getInstance().type(), test.type)
            << test.before.description() << " " << test.after.description();
    }
}

TEST_F(ConfigurationChangeHandlersTest, SyncTaskIsRetimedWhenItsTimeChanges) {
    const struct {
        Value before, after;
        int interval;
    } cases[] = {{900, 900, 3600}, {900, Value(), 3600}, {900, 300, 300}, {900, "900", 900}, {Value(), "120", 120}};
    for (const auto& test : cases) {
        fresh();
        auto answer = only("SyncTime", test.after);
        ServerCommunicator::SyncTimeCheckWithOldData(old(only("SyncTime", test.before)), answer);
        const int changed = test.interval == 3600 ? 0 : 1;
        EXPECT_EQ(taskInterval("SyncConfiguration"), Value(test.interval));
        EXPECT_EQ(taskInterval("EventCollection"), Value(3600));
        EXPECT_EQ(logged("Going to StartTask SyncConfiguration"), changed);
        EXPECT_EQ(logged("SyncConfiguration is not available in the list"), changed);
        EXPECT_EQ(logged("[INFO]SyncTime has been updated to " + test.after.description()), changed);
    }
}

TEST_F(ConfigurationChangeHandlersTest, OtherEventsRestartRealtimeOnlyWhenItWasOnAndStaysOn) {
    const struct {
        Value oldEvents, newEvents, oldRealtime, newRealtime;
        bool changed;
        bool restarted;
    } cases[] = {
        {"a", "a", true, true, false, false},   {"a", Value(), true, true, false, false},
        {"a", "b", false, true, true, false},   {"a", "b", true, false, true, false},
        {"a", "b", false, false, true, false},  {"a", "b", Value(), Value(), true, false},
        {Value(), "b", true, true, true, true}, {"a", "", true, true, true, true},
    };
    for (const auto& test : cases) {
        fresh();
        auto before = only("EventsToRead", test.oldEvents);
        auto answer = only("EventsToRead", test.newEvents);
        before.set("IsRealTime", test.oldRealtime);
        answer.set("IsRealTime", test.newRealtime);
        ServerCommunicator::realTimeReinitialiseCheckWithOldData(old(before), answer);
        EXPECT_EQ(logged("[INFO]Events to be audited are changed to " + test.newEvents.description()),
                  test.changed ? 1 : 0);
        EXPECT_EQ(logged("[INFO]Change in events to be audited, reinitiatizing real time collection"),
                  test.restarted ? 1 : 0);
    }
}

TEST_F(ConfigurationChangeHandlersTest, RealtimeIsStartedAgainOnlyWhenTheOldOneHasEnded) {
    startService();
    const auto realtime = addStandIn("EventCollectorRealtime");
    const auto before = added("EventCollectorRealtime");
    auto restarted = std::async(std::launch::async, [] {
        Dictionary answer = {{"EventsToRead", "b"}, {"IsRealTime", true}};
        ServerCommunicator::realTimeReinitialiseCheckWithOldData(old({{"EventsToRead", "a"}, {"IsRealTime", true}}),
                                                                 answer);
    });
    for (int wait = 1; wait <= 2; ++wait) {
        ASSERT_TRUE(clock().awaitTimerIn(10s));
        EXPECT_TRUE(realtime->isCancelled());
        EXPECT_EQ(logged("[INFO]Sleeping for 10 seconds"), wait);
        EXPECT_EQ(added("EventCollectorRealtime"), before);
        if (wait == 2) {
            realtime->completeOperation();
        }
        clock().advance(10s);
    }
    restarted.get();
    EXPECT_EQ(added("EventCollectorRealtime"), before + 1);
}

TEST_F(ConfigurationChangeHandlersTest, IdentityIsStoredEncryptedWhenTheAgentHadNone) {
    const struct {
        Value before, identity, uid;
        const char* passPhrase;
    } cases[] = {{Value(), "identity-7", "uid-1", "uid-1"},
                 {Value(), "identity-7", Value(), "XEVORTANIMB"},
                 {Value(), "identity-7", 42, "42"},
                 {"has one", "identity-7", "uid-1", nullptr},
                 {Value(), Value(), "uid-1", nullptr}};
    for (const auto& test : cases) {
        fresh();
        auto answer = only("AgentAuthID", test.identity);
        answer.set("Other", 1);
        if (!test.uid.isNull()) {
            answer.set("AgentUID", test.uid);
        }
        ServerCommunicator::AuthIDChangesWithOldData(old(only("AgentAuthID", test.before)), answer);
        auto stored = volume().readConfiguration("myconfigurations.plist");
        const auto value = stored["AgentAuthID"].description();
        stored.remove("AgentAuthID");
        EXPECT_EQ(stored, myConfigurations);
        EXPECT_TRUE(answer.contains("Other"));
        if (!test.passPhrase) {
            EXPECT_EQ(value, "(null)");
            EXPECT_EQ(answer["AgentAuthID"], test.identity);
            continue;
        }
        EXPECT_FALSE(answer.contains("AgentAuthID"));
        ASSERT_GT(value.size(), 32U);
        EXPECT_TRUE(std::all_of(value.begin(), value.begin() + 32, [](char c) { return c > ' ' && c < 0x7F; }))
            << value;
        EXPECT_EQ(*SecurityUtil::decrypt(value.substr(32), test.passPhrase, ""), "identity-7");
    }
}

}  // namespace sentrova::testing
