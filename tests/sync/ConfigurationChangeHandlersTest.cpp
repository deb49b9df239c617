#include "core/GlobalVariables.h"
#include "forwarding/SecurityUtil.h"
#include "foundation/formats/Json.h"
#include "operations/ConcurrentOperationAbstract.h"
#include "operations/ScheduleHandler.h"
#include "service/AgentServiceHandler.h"
#include "support/AgentFixture.h"
#include "sync/ServerCommunicator.h"

#include <future>
#include <thread>

#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {

using namespace std::chrono_literals;
using Sync = ServerCommunicator;
using Handler = void (*)(const PropertyListHandler&, Dictionary&);

// Executes until it is told to complete. Records its cancel.
class StandIn final : public ConcurrentOperationAbstract {
  public:
    explicit StandIn(const char* name) : ConcurrentOperationAbstract(name) {}
    void start() override { started(); }
    void cancel() override { cancelOperation(); }
};

Dictionary change(Handler handler, std::string_view before, std::string_view after) {
    PropertyListHandler old;
    old.updateDictionary(*Json::parse(before)->dictionary());
    auto answer = *Json::parse(after)->dictionary();
    handler(old, answer);
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

    // While a batch operation executes, another one is refused. Only the log tells that none is left.
    void awaitEndOfBatch() {
        ASSERT_TRUE(eventually([this] {
            const auto before = logged("EventCollectionSchedule operation doesnot exists");
            return !AgentServiceHandler::getOperationStatusOnMainQueue("EventCollectionSchedule") &&
                   logged("EventCollectionSchedule operation doesnot exists") > before;
        }));
    }

    // Adds an operation with that name to the main queue and waits until it executes.
    std::shared_ptr<StandIn> addStandIn(const char* name) {
        auto operation = std::make_shared<StandIn>(name);
        AgentServiceHandler::addOperationToMainQueue(operation);
        EXPECT_TRUE(eventually([&] { return operation->isExecuting(); }));
        return operation;
    }

    // Restarts the agent with an empty log.
    void fresh() {
        restartConfigured();
        std::filesystem::remove(volume().logs() / "Config2026-11-15.log");
    }

    // The handler's last line.
    std::string said() {
        const auto whole = log();
        const auto at = whole.find("[INFO]", std::min(whole.rfind("][ServerCommunicator]"), whole.size()));
        return at == std::string::npos ? "" : whole.substr(at + 6, whole.find("\r\n", at) - at - 6);
    }

    int added(const char* name) {
        return logged(std::string("OperationsHandler ") + name + " has been added to the queue");
    }

    std::thread service_;
};

TEST_F(ConfigurationChangeHandlersTest, OnlyRealChangesAreApplied) {
    constexpr auto* kDomain = Sync::ConfigurationChangesCheckWithOldData;
    constexpr auto* kState = Sync::StateChangesCheckWithOldData;
    constexpr auto* kInterval = Sync::IntervalChangesCheckWithOldData;
    constexpr auto* kSyncTime = Sync::SyncTimeCheckWithOldData;
    constexpr auto* kEvents = Sync::realTimeReinitialiseCheckWithOldData;
    constexpr const char* kFetch = "Fetch interval has been changed updating schedule to ";
    constexpr const char* kNewEvents = "Events to be audited are changed to b";
    // The expected line. If it ends with an interval, the task is restarted with that interval.
    const std::tuple<Handler, const char*, const char*, const char*, int> cases[] = {
        {kDomain, "{}", "{}", "", 0},
        {kDomain, "{}", R"({"AgentGuid":"g"})", "First Time Configuration", 0},
        {kDomain, R"({"AgentGuid":"g"})", R"({"AgentGuid":"h"})", "", 0},
        {kDomain, R"({"AgentGuid":"g"})", R"({"AgentGuid":"g","DomainID":"1"})", "", 0},
        {kState, R"({"isEnabled":1})", R"({"isEnabled":true})", "No State change", 0},
        {kState, R"({"isEnabled":true})", "{}", "No State change", 0},
        {kState, "{}", R"({"isEnabled":true})", "State Changed to enabled", 0},
        {kSyncTime, R"({"SyncTime":900})", "{}", "", 0},
        {kSyncTime, R"({"SyncTime":900})", R"({"SyncTime":900})", "", 0},
        {kSyncTime, R"({"SyncTime":900})", R"({"SyncTime":"900"})", "SyncTime has been updated to ", 900},
        {kSyncTime, "{}", R"({"SyncTime":120})", "SyncTime has been updated to ", 120},
        {kEvents, R"({"EventsToRead":"b","IsRealTime":1})", R"({"EventsToRead":"b","IsRealTime":1})", "", 0},
        {kEvents, R"({"EventsToRead":"a","IsRealTime":1})", R"({"IsRealTime":1})", "", 0},
        {kEvents, R"({"IsRealTime":0})", R"({"EventsToRead":"b","IsRealTime":1})", kNewEvents, 0},
        {kEvents, R"({"IsRealTime":1})", R"({"EventsToRead":"b","IsRealTime":0})", kNewEvents, 0},
        {kInterval, R"({"FetchInterval":600})", R"({"FetchInterval":600,"IsRealTime":false})", "", 0},
        {kInterval, R"({"FetchInterval":600})", R"({"FetchInterval":"600"})", kFetch, 600},
        {kInterval, R"({"FetchInterval":600})", "{}", kFetch, 10800},
        {kInterval, R"({"FetchInterval":60})", R"({"FetchInterval":60,"IsRealTime":true})",
         "Realtime enabled starting listening", 0},
        {kInterval, R"({"IsRealTime":"no"})", R"({"FetchInterval":60,"IsRealTime":"YES"})", kFetch, 60},
    };
    for (const auto& [handler, before, after, words, interval] : cases) {
        SCOPED_TRACE(std::string(before) + " " + after);
        fresh();
        change(handler, before, after);
        EXPECT_EQ(said(), words + (interval > 0 ? std::to_string(interval) : ""));
        auto tasks = schedules["ScheduleTasks"];
        if (interval > 0) {
            tasks.array()->at(handler == kSyncTime ? 1 : 0).dictionary()->set("IntervalSeconds", interval);
        }
        EXPECT_EQ(volume().readConfiguration("schedules.plist")["ScheduleTasks"], tasks);
        EXPECT_EQ(clock().pendingTimers(), interval > 0 ? 1U : 0U);
        EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"), serverInfo);
    }
}

TEST_F(ConfigurationChangeHandlersTest, RetimingKeepsTheTimerOfARepeatingTaskWithTheSameInterval) {
    constexpr auto* kInterval = Sync::IntervalChangesCheckWithOldData;
    constexpr const char* kFetch = "Fetch interval has been changed updating schedule to 10800";
    constexpr const char* kRealtime = R"({"IsRealTime":1})";
    const std::tuple<Handler, const char*, const char*, const char*> cases[] = {
        {kInterval, "{}", "{}", kFetch},
        {kInterval, kRealtime, kRealtime, kFetch},
        {Sync::SyncTimeCheckWithOldData, "{}", R"({"SyncTime":"10800"})", "SyncTime has been updated to 10800"},
    };
    for (const auto& [handler, before, after, words] : cases) {
        SCOPED_TRACE(after);
        fresh();
        change(handler, before, after);
        clock().advance(1000s);
        change(handler, before, after);
        EXPECT_EQ(logged(words), 2);
        EXPECT_EQ(clock().pendingTimers(), 1U);
        EXPECT_TRUE(clock().awaitTimerIn(9800s));
    }
    // While realtime collection is on, the task runs once per start. Afterwards it repeats.
    fresh();
    ScheduleHandler::UpdateTaskWithName("EventCollection", "Repeat", "false");
    int runs = 0;
    for (const auto* after : {kRealtime, kRealtime, "{}"}) {
        change(kInterval, kRealtime, after);
        ASSERT_TRUE(clock().awaitTimerIn(10800s)) << after;
        clock().advance(10800s);
        ++runs;
        ASSERT_TRUE(eventually([&] { return logged("EventCollectionFiles start called") == runs; }));
    }
    EXPECT_TRUE(clock().awaitTimerIn(10800s));
}

TEST_F(ConfigurationChangeHandlersTest, BothCollectionsStartTogetherAndRealtimeEndsFirst) {
    const std::tuple<Handler, const char*, const char*, bool> cases[] = {
        {Sync::StateChangesCheckWithOldData, R"({"isEnabled":true})", R"({"isEnabled":false})", true},
        {Sync::IntervalChangesCheckWithOldData, R"({"IsRealTime":true})", R"({"IsRealTime":false})", false},
    };
    startService();
    constexpr const char* kRefused = "EventCollectorRealtime didn't run";
    for (const auto& [handler, on, off, endsBatch] : cases) {
        SCOPED_TRACE(on);
        const int before[] = {added("EventCollectionSchedule"), added("EventCollectorRealtime"), logged(kRefused)};
        change(handler, "{}", on);
        EXPECT_EQ(added("EventCollectionSchedule"), before[0] + 1);
        EXPECT_EQ(added("EventCollectorRealtime"), before[1] + 1);
        ASSERT_TRUE(eventually([&] { return logged(kRefused) == before[2] + 1; }));
        awaitEndOfBatch();
        const auto batch = addStandIn("EventCollectionSchedule");
        const auto realtime = addStandIn("EventCollectorRealtime");
        change(handler, on, off);
        EXPECT_TRUE(realtime->isCancelled());
        EXPECT_EQ(batch->isCancelled(), endsBatch);
        if (endsBatch) {
            const auto batchAt = log().rfind("OperationsHandler EventCollectionSchedule has been cancelled");
            ASSERT_NE(batchAt, std::string::npos);
            EXPECT_LT(log().rfind("OperationsHandler EventCollectorRealtime has been cancelled"), batchAt);
        }
        batch->completeOperation();
        realtime->completeOperation();
    }
}

TEST_F(ConfigurationChangeHandlersTest, ChangedRelayNameSetsTheConnectionType) {
    constexpr std::uint64_t kUnchanged = 9;
    const auto named = [](const char* name) { return std::string(R"({"NATServerName":")") + name + "\"}"; };
    const std::tuple<std::string, std::string, std::uint64_t> cases[] = {{named("relay"), named("relay"), kUnchanged},
                                                                         {named("-"), named("-"), kUnchanged},
                                                                         {named("relay"), named("-"), 1},
                                                                         {named("-"), named(""), 1},
                                                                         {named("-"), named("relay"), 0},
                                                                         {named("relay"), named("other"), 0},
                                                                         {named("relay"), "{}", 0},
                                                                         {"{}", "{}", 0}};
    for (const auto& [before, after, type] : cases) {
        GlobalVariables::getInstance().setType(kUnchanged);
        change(Sync::NATChangesWithOldData, before, after);
        EXPECT_EQ(GlobalVariables::getInstance().type(), type) << before << " " << after;
    }
}

TEST_F(ConfigurationChangeHandlersTest, RealtimeRestartsOnlyAfterTheOldReaderHasEnded) {
    startService();
    const auto realtime = addStandIn("EventCollectorRealtime");
    const auto before = added("EventCollectorRealtime");
    auto restarted = std::async(std::launch::async, [] {
        change(Sync::realTimeReinitialiseCheckWithOldData, R"({"EventsToRead":"a","IsRealTime":true})",
               R"({"EventsToRead":"b","IsRealTime":true})");
    });
    for (int wait = 1; wait <= 2; ++wait) {
        ASSERT_TRUE(clock().awaitTimerIn(10s));
        EXPECT_TRUE(realtime->isCancelled());
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
        {"{}", R"({"AgentAuthID":"identity-7"})", "XEVORTANIMB"},
        {"{}", R"({"AgentAuthID":"identity-7","AgentUID":42})", "42"},
        {R"({"AgentAuthID":"has one"})", R"({"AgentAuthID":"identity-7"})", nullptr},
        {"{}", R"({"AgentUID":"uid-1"})", nullptr}};
    for (const auto& [before, after, passPhrase] : cases) {
        fresh();
        const auto answer = change(Sync::AuthIDChangesWithOldData, before, after);
        auto mine = volume().readConfiguration("myconfigurations.plist");
        const auto stored = mine["AgentAuthID"].description();
        mine.remove("AgentAuthID");
        EXPECT_EQ(mine, myConfigurations) << "the other keys stay";
        if (passPhrase) {
            EXPECT_TRUE(std::ranges::all_of(stored.substr(0, 32), [](char c) { return c > ' ' && c < 0x7F; }));
            EXPECT_EQ(*SecurityUtil::decrypt(stored.substr(32), passPhrase, ""), "identity-7");
            EXPECT_FALSE(answer.contains("AgentAuthID")) << "later readers see the plain identity";
        } else {
            EXPECT_EQ(stored, "(null)");
            EXPECT_EQ(answer, *Json::parse(after)->dictionary());
        }
    }
}

}  // namespace sentrova::testing
