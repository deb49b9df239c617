#include "core/AgentServiceHandler.h"
#include "core/GlobalVariables.h"
#include "forwarding/SecurityUtil.h"
#include "foundation/Json.h"
#include "operations/ConcurrentOperationAbstract.h"
#include "support/AgentFixture.h"
#include "sync/ServerCommunicator.h"

#include <algorithm>
#include <future>
#include <sstream>
#include <thread>
#include <tuple>

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

using Messages = std::vector<std::string>;
using Handler = void (*)(const PropertyListHandler&, Dictionary&);

Dictionary json(std::string_view text) {
    return *Json::parse(text)->dictionary();
}

PropertyListHandler old(std::string_view text) {
    PropertyListHandler handler;
    handler.updateDictionary(json(text));
    return handler;
}

Dictionary change(Handler handler, std::string_view before, std::string_view after) {
    auto answer = json(after);
    handler(old(before), answer);
    return answer;
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

    // What the handlers and the scheduler have logged at level 1 since, in its order.
    Messages messages() {
        Messages all;
        std::istringstream lines(log());
        for (std::string line; std::getline(lines, line);) {
            const auto at = line.find("[INFO]");
            if (at != std::string::npos && (line.find("[ServerCommunicator]") != std::string::npos ||
                                            line.find("[ScheduleHandler]") != std::string::npos)) {
                all.push_back(line.substr(at + 6, line.size() - at - 7));
            }
        }
        return all;
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

TEST_F(ConfigurationChangeHandlersTest, OnlyRealChangesAreAppliedAndLogged) {
    using Sync = ServerCommunicator;
    constexpr auto* kState = Sync::StateChangesCheckWithOldData;
    constexpr auto* kEvents = Sync::realTimeReinitialiseCheckWithOldData;
    constexpr auto* kSyncTime = Sync::SyncTimeCheckWithOldData;
    const Messages noState = {"No State change"};
    const Messages enabled = {"State Changed to enabled"};
    const Messages otherEvents = {"Events to be audited are changed to b"};
    const Messages realtimeAgain = {"Events to be audited are changed to b",
                                    "Change in events to be audited, reinitiatizing real time collection"};
    const auto syncTime = [](const char* text) {
        return Messages{"SyncConfiguration is not available in the list", "Going to StartTask SyncConfiguration",
                        "ScheduleHandler SyncConfiguration has been scheduled",
                        std::string("SyncTime has been updated to ") + text};
    };
    const struct {
        Handler handler;
        const char* before;
        const char* after;
        Messages messages;
    } cases[] = {
        {kState, R"({"isEnabled":true})", R"({"isEnabled":true})", noState},
        {kState, R"({"isEnabled":1})", R"({"isEnabled":true})", noState},
        {kState, R"({"isEnabled":true})", "{}", noState},
        {kState, "{}", R"({"isEnabled":true})", enabled},
        {kState, R"({"isEnabled":false})", R"({"isEnabled":true})", enabled},
        {kState, R"({"isEnabled":true})", R"({"isEnabled":false})", {"State Changed to disabled"}},
        {kSyncTime, R"({"SyncTime":900})", R"({"SyncTime":900})", {}},
        {kSyncTime, R"({"SyncTime":900})", "{}", {}},
        {kSyncTime, R"({"SyncTime":900})", R"({"SyncTime":300})", syncTime("300")},
        {kSyncTime, R"({"SyncTime":900})", R"({"SyncTime":"900"})", syncTime("900")},
        {kSyncTime, "{}", R"({"SyncTime":"120"})", syncTime("120")},
        {kEvents, R"({"EventsToRead":"b","IsRealTime":1})", R"({"EventsToRead":"b","IsRealTime":1})", {}},
        {kEvents, R"({"EventsToRead":"a","IsRealTime":1})", R"({"IsRealTime":1})", {}},
        {kEvents, R"({"EventsToRead":"a","IsRealTime":0})", R"({"EventsToRead":"b","IsRealTime":1})", otherEvents},
        {kEvents, R"({"EventsToRead":"a","IsRealTime":1})", R"({"EventsToRead":"b","IsRealTime":0})", otherEvents},
        {kEvents, R"({"EventsToRead":"a"})", R"({"EventsToRead":"b"})", otherEvents},
        {kEvents, R"({"IsRealTime":1})", R"({"EventsToRead":"b","IsRealTime":true})", realtimeAgain},
    };
    for (const auto& test : cases) {
        fresh();
        change(test.handler, test.before, test.after);
        EXPECT_EQ(messages(), test.messages) << test.before << " " << test.after;
        const auto time = json(test.after)["SyncTime"].integerValue();
        EXPECT_EQ(taskInterval("SyncConfiguration"), Value(test.messages.size() == 4 ? time : 3600));
    }
}

TEST_F(ConfigurationChangeHandlersTest, AgentWhoseDomainIsGoneIsClearedAndStopped) {
    serverInfo.set("AgentGuid", "g");
    const struct {
        const char* before;
        const char* after;
        Messages messages;
    } cases[] = {
        {"{}", "{}", {}},
        {"{}", R"({"AgentGuid":"g"})", {"First Time Configuration"}},
        {R"({"AgentGuid":"g"})", R"({"AgentGuid":"g","DomainID":"1"})", {}},
        {R"({"AgentGuid":"g"})", R"({"AgentGuid":"h"})", {}},
        {R"({"AgentGuid":"g"})", "{}", {}},
        {R"({"AgentGuid":"g"})", R"({"AgentGuid":"g"})", {"Agent Deleted/Unconfigured"}},
    };
    for (const auto& test : cases) {
        fresh();
        change(ServerCommunicator::ConfigurationChangesCheckWithOldData, test.before, test.after);
        EXPECT_EQ(messages(), test.messages) << test.before << " " << test.after;
        const bool stopped = logged("AgentServiceHandler stop called") == 1;
        EXPECT_EQ(stopped, &test == std::end(cases) - 1);
        auto expected = serverInfo;
        if (stopped) {
            expected.remove("AgentGuid");
            expected.remove("DomainName");
        }
        EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"), expected);
    }
}

TEST_F(ConfigurationChangeHandlersTest, StateStartsBothCollectionsAndEndsTheLiveOneFirst) {
    startService();
    change(ServerCommunicator::StateChangesCheckWithOldData, "{}", R"({"isEnabled":true})");
    EXPECT_EQ(added("EventCollectionSchedule"), 2);
    EXPECT_EQ(added("EventCollectorRealtime"), 2) << "whatever is said of realtime collection";
    ASSERT_TRUE(eventually([this] {
        return logged("EventCollectorRealtime didn't run") == 2 && logged("EventCollectionFiles start called") == 2;
    }));
    awaitEndOfBatch();

    const auto batch = addStandIn("EventCollectionSchedule");
    const auto realtime = addStandIn("EventCollectorRealtime");
    change(ServerCommunicator::StateChangesCheckWithOldData, R"({"isEnabled":true})", R"({"isEnabled":false})");
    EXPECT_TRUE(batch->isCancelled() && realtime->isCancelled());
    const auto realtimeAt = log().rfind("OperationsHandler EventCollectorRealtime has been cancelled");
    const auto batchAt = log().rfind("OperationsHandler EventCollectionSchedule has been cancelled");
    EXPECT_LT(realtimeAt, batchAt);
    EXPECT_NE(batchAt, std::string::npos);
    batch->completeOperation();
    realtime->completeOperation();
}

TEST_F(ConfigurationChangeHandlersTest, IntervalAndRealtimeDecideOnTheBatchTask) {
    const Messages on = {"Realtimestate has been changed", "Running schedule once to read old events\xC2\xA0\xCC\xB0",
                         "Realtime enabled starting listening", "EventCollection is not available in the list"};
    const Messages off = {"Realtimestate has been changed", "Realtime disabled stopping listening"};
    const struct {
        const char* before;
        const char* after;
        Messages realtime;
        // 0 when the task is left alone.
        int interval;
    } cases[] = {
        {R"({"FetchInterval":600})", R"({"FetchInterval":600,"IsRealTime":false})", {}, 0},
        {R"({"FetchInterval":600})", R"({"FetchInterval":700})", {}, 700},
        {R"({"FetchInterval":600})", R"({"FetchInterval":"600"})", {}, 600},
        {R"({"FetchInterval":600})", "{}", {}, 10800},
        {"{}", "{}", {}, 10800},
        {"{}", R"({"FetchInterval":"1200"})", {}, 1200},
        {R"({"FetchInterval":600,"IsRealTime":1})", R"({"FetchInterval":600,"IsRealTime":0})", off, 600},
        {R"({"FetchInterval":600,"IsRealTime":1})", R"({"FetchInterval":600})", off, 600},
        {R"({"FetchInterval":600})", R"({"FetchInterval":600,"IsRealTime":true})", on, 0},
        {R"({"FetchInterval":600,"IsRealTime":"no"})", R"({"FetchInterval":60,"IsRealTime":"YES"})", on, 60},
    };
    for (const auto& test : cases) {
        fresh();
        change(ServerCommunicator::IntervalChangesCheckWithOldData, test.before, test.after);
        auto expected = test.realtime;
        if (test.interval != 0) {
            const auto time = std::to_string(test.interval);
            for (const auto& message : {std::string("EventCollection is not available in the list"),
                                        "Fetch interval has been changed updating schedule to " + time,
                                        std::string("Going to StartTask EventCollection"),
                                        std::string("ScheduleHandler EventCollection has been scheduled")}) {
                expected.push_back(message);
            }
        }
        EXPECT_EQ(messages(), expected) << test.before << " " << test.after;
        EXPECT_EQ(taskInterval("EventCollection"), Value(test.interval == 0 ? 3600 : test.interval));
    }
}

TEST_F(ConfigurationChangeHandlersTest, RealtimeThatIsSwitchedStartsBothCollectionsOrEndsTheLiveOne) {
    constexpr auto* kInterval = ServerCommunicator::IntervalChangesCheckWithOldData;
    startService();
    change(kInterval, "{}", R"({"IsRealTime":true})");
    EXPECT_EQ(added("EventCollectionSchedule"), 2);
    EXPECT_EQ(added("EventCollectorRealtime"), 2);
    ASSERT_TRUE(eventually([this] { return logged("EventCollectorRealtime didn't run") == 2; }));
    const auto realtime = addStandIn("EventCollectorRealtime");
    change(kInterval, R"({"IsRealTime":true})", R"({"IsRealTime":false})");
    EXPECT_TRUE(realtime->isCancelled());
    realtime->completeOperation();
}

TEST_F(ConfigurationChangeHandlersTest, RelaysNameSetsTheTypeOfConnectionWhenItChanges) {
    constexpr std::uint64_t kUnchanged = 9;
    const char* const none = "{}";
    const char* const relay = R"({"NATServerName":"relay"})";
    const char* const other = R"({"NATServerName":"other"})";
    const char* const empty = R"({"NATServerName":""})";
    const char* const dash = R"({"NATServerName":"-"})";
    const std::tuple<const char*, const char*, std::uint64_t> cases[] = {
        {relay, relay, kUnchanged}, {dash, dash, kUnchanged}, {relay, dash, 1}, {relay, empty, 1}, {dash, empty, 1},
        {dash, relay, 0},           {relay, other, 0},        {relay, none, 0}, {none, none, 0},   {none, dash, 1}};
    for (const auto& [before, after, type] : cases) {
        GlobalVariables::getInstance().setType(kUnchanged);
        change(ServerCommunicator::NATChangesWithOldData, before, after);
        EXPECT_EQ(GlobalVariables::getInstance().type(), type) << before << " " << after;
    }
}

TEST_F(ConfigurationChangeHandlersTest, RealtimeIsStartedAgainOnlyWhenTheOldOneHasEnded) {
    startService();
    const auto realtime = addStandIn("EventCollectorRealtime");
    const auto before = added("EventCollectorRealtime");
    auto restarted = std::async(std::launch::async, [] {
        change(ServerCommunicator::realTimeReinitialiseCheckWithOldData, R"({"EventsToRead":"a","IsRealTime":true})",
               R"({"EventsToRead":"b","IsRealTime":true})");
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
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"{}", R"({"AgentAuthID":"identity-7","AgentUID":"uid-1"})", "uid-1"},
        {"{}", R"({"AgentAuthID":"identity-7"})", "XEVORTANIMB"},
        {"{}", R"({"AgentAuthID":"identity-7","AgentUID":42})", "42"},
        {R"({"AgentAuthID":"has one"})", R"({"AgentAuthID":"identity-7"})", nullptr},
        {"{}", R"({"AgentUID":"uid-1"})", nullptr}};
    for (const auto& [before, after, passPhrase] : cases) {
        fresh();
        auto expected = json(after);
        const auto answer = change(ServerCommunicator::AuthIDChangesWithOldData, before, after);
        auto stored = volume().readConfiguration("myconfigurations.plist");
        const auto value = stored["AgentAuthID"].description();
        stored.remove("AgentAuthID");
        EXPECT_EQ(stored, myConfigurations);
        if (passPhrase) {
            expected.remove("AgentAuthID");
            ASSERT_GT(value.size(), 32U);
            EXPECT_TRUE(std::all_of(value.begin(), value.begin() + 32, [](char c) { return c > ' ' && c < 0x7F; }));
            EXPECT_EQ(*SecurityUtil::decrypt(value.substr(32), passPhrase, ""), "identity-7");
        } else {
            EXPECT_EQ(value, "(null)");
        }
        EXPECT_EQ(answer, expected) << "later readers do not see the plain identity";
    }
}

}  // namespace sentrova::testing
