#include "core/GlobalVariables.h"
#include "foundation/DispatchQueue.h"
#include "foundation/FileSystem.h"
#include "operations/ScheduleHandler.h"
#include "operations/TaskRegistry.h"
#include "support/AgentFixture.h"

#include <atomic>
#include <filesystem>
#include <fstream>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using std::chrono::duration_cast;
using std::chrono::hours;
using std::chrono::seconds;

class ScheduleHandlerTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    using Times = std::vector<seconds>;

    ScheduleHandlerTest() {
        for (const auto* name : {"a", "b", "c", "d", "e", "f"}) {
            const TaskRegistry::Registration method("ScheduleHandlerTest", name, [this, name] { noteRun(name); });
        }
        const TaskRegistry::Registration faulty("ScheduleHandlerTest", "faulty", [this] {
            noteRun("faulty");
            throw std::runtime_error("the task's own fault");
        });
    }

    // An enabled task that runs the method of its own name.
    static Dictionary task(const char* name, const Value& interval,
                           std::initializer_list<Dictionary::Entry> more = {}) {
        Dictionary entry = {{"TaskName", name}, {"IntervalSeconds", interval},
                            {"Repeat", true},   {"TaskStatus", "Enable"},
                            {"selector", name}, {"className", "ScheduleHandlerTest"}};
        for (const auto& [key, value] : more) {
            entry.set(key, value);
        }
        return entry;
    }
    void setTasks(Array tasks) {
        schedules = {{"ScheduleTasks", std::move(tasks)}};
        writeConfiguration();
    }
    Dictionary stored(const char* name) {
        const auto file = volume().readConfiguration("schedules.plist");
        for (const auto& entry : *file["ScheduleTasks"].array()) {
            if (entry.dictionary() && (*entry.dictionary())["TaskName"] == Value(name)) {
                return *entry.dictionary();
            }
        }
        return {};
    }

    void noteRun(const std::string& name) {
        MutexLock lock(mutex_);
        runs_[name].push_back(duration_cast<seconds>(Clock::shared().wallTime() - start_));
    }
    // When the task ran, in time since the beginning of the test.
    Times runs(const std::string& name) {
        MutexLock lock(mutex_);
        return runs_[name];
    }
    // Waits until so many timers are set: every task that goes on has ended its run and waits for the next one.
    [[nodiscard]] bool settled(std::size_t timers) {
        return eventually([&] { return clock().pendingTimers() == timers; });
    }

  private:
    Mutex mutex_;
    std::map<std::string, Times> runs_ GUARDED_BY(mutex_);
    const Date start_ = clock().wallTime();
};

TEST_F(ScheduleHandlerTest, WeekOfTasksRunsEachExactlyWhenItIsDue) {
    setTasks({task("a", 6 * 3600), task("b", "86400", {{"RunAt", "02:00:00"}, {"TaskStatus", "Disable"}}),
              task("c", 10 * 3600, {{"Repeat", "false"}}), task("d", 5 * 3600, {{"TaskStatus", "enable"}}),
              task("e", 12 * 3600), task("f", 3600, {{"RunAt", "05:00:00"}, {"Repeat", false}})});
    const auto handler = ScheduleHandler::init();
    handler->start();
    EXPECT_TRUE(handler->isFinished());
    ASSERT_TRUE(settled(6));
    EXPECT_EQ(logged("][INFO]Going to StartTask ALL\r\n"), 1);
    EXPECT_EQ(logged("][INFO]ScheduleHandler b has been scheduled\r\n"), 1);
    EXPECT_EQ(logged("][INFO]Next fire time for b is 2026-11-16 02:00:00 UTC\r\n"), 1);
    std::map<std::string, Times> expected;
    for (int hour = 1; hour <= 7 * 24; ++hour) {
        const bool eightHourly = hour > 48;
        for (const auto& [name, due] : {std::pair("a", hour % 6 == 0),
                                        {"b", hour % 24 == 14},
                                        {"c", hour == 10},
                                        {"e", eightHourly ? hour % 8 == 0 : hour % 12 == 0},
                                        {"f", hour == 17}}) {
            if (due) {
                expected[name].emplace_back(hours(hour));
            }
        }
        clock().advance(hours(1));
        ASSERT_TRUE(settled(hour < 10 ? 6 : hour < 17 ? 5 : 4)) << hour;
        ASSERT_TRUE(eventually([&] { return runs("c") == expected["c"] && runs("f") == expected["f"]; })) << hour;
        EXPECT_EQ(logged("][ERROR]"), 0);
        if (hour == 48) {
            ScheduleHandler::UpdateTaskWithName("e", "IntervalSeconds", 8 * 3600);
            ScheduleHandler::startTask("e");
        }
    }
    for (const auto* name : {"a", "b", "c", "d", "e", "f"}) {
        EXPECT_EQ(runs(name), expected[name]) << name;
    }
    EXPECT_EQ(stored("a")["LastScheduleTimeInMillis"], Value(1'794'744'000 + 7 * 86'400));
    EXPECT_EQ(stored("a")["LastScheduleTime"], Value("Sun, 22 Nov 2026 12:00:00 +0000"));
    EXPECT_EQ(stored("c")["LastScheduleTimeInMillis"], Value(1'794'744'000 + 36'000));
    EXPECT_FALSE(stored("d").contains("LastScheduleTime") || stored("d").contains("LastScheduleTimeInMillis"));
}

TEST_F(ScheduleHandlerTest, DailyTimeThatIsNowRunsAtOnceAndOneThatIsOverTomorrow) {
    clock().advance(std::chrono::milliseconds(900));
    const auto once = [](const char* name, const char* time) {
        return task(name, 3600, {{"RunAt", time}, {"Repeat", false}});
    };
    setTasks({once("a", "12:00:00"), once("b", "11:59:59"), once("c", "12:00:02")});
    ScheduleHandler::startTask("ALL");
    ASSERT_TRUE(eventually([this] { return runs("a").size() == 1; }));
    ASSERT_TRUE(settled(2));
    EXPECT_EQ(logged("][INFO]Next fire time for a is 2026-11-15 12:00:00 UTC\r\n"), 1);
    EXPECT_EQ(logged("][INFO]Next fire time for b is 2026-11-16 11:59:59 UTC\r\n"), 1);
    clock().advance(seconds(1));
    ASSERT_TRUE(settled(2));
    EXPECT_EQ(runs("c"), Times());
    clock().advance(seconds(1));
    ASSERT_TRUE(eventually([this] { return runs("c").size() == 1; }));
    EXPECT_TRUE(settled(1));
    EXPECT_EQ(runs("b"), Times());

    std::thread caller([&] { ScheduleHandler::initiateTimer(once("d", "13:00:00")); });
    ASSERT_TRUE(settled(2));
    clock().advance(hours(1));
    caller.join();
    EXPECT_EQ(runs("d").size(), 1U);
}

TEST_F(ScheduleHandlerTest, TaskStartedByItsNameKeepsToItsIntervalAndStopsByItsName) {
    setTasks({task("a", 600, {{"RunAt", "02:00:00"}}), task("b", 600)});
    ScheduleHandler::startTask("a");
    ASSERT_TRUE(settled(1));
    ASSERT_TRUE(clock().awaitTimerIn(seconds(600)));
    EXPECT_EQ(ScheduleHandler::description(), "Printing the task array {\n    a = a;\n}");
    ScheduleHandler::startTask("a");
    EXPECT_EQ(logged("][INFO]a schedule has been stopped\r\n"), 1);
    EXPECT_EQ(logged("][INFO]Going to StartTask a\r\n"), 2);
    EXPECT_EQ(logged("][INFO]ScheduleHandler a has been scheduled\r\n"), 2);
    EXPECT_EQ(clock().pendingTimers(), 1U);
    ScheduleHandler::startTask("b");
    ScheduleHandler::stopTask("b");
    ScheduleHandler::stopTask("b");
    EXPECT_EQ(logged("][INFO]b is not available in the list\r\n"), 1);
    clock().advance(seconds(600));
    ASSERT_TRUE(clock().awaitTimerIn(seconds(600)));
    EXPECT_EQ(runs("a"), Times{seconds(600)});

    ScheduleHandler::stopAllTasks();
    EXPECT_EQ(logged("][INFO]a has been stopped\r\n"), 1);
    EXPECT_EQ(logged("][INFO]All Tasks stopped\r\n"), 1);
    EXPECT_EQ(clock().pendingTimers(), 0U);
    ScheduleHandler::stopTask("a");
    EXPECT_EQ(logged("][INFO]a schedule has been stopped\r\n"), 2) << "it was no longer in the list";
    ScheduleHandler::startTask("nobody's");
    EXPECT_EQ(clock().pendingTimers(), 0U);
    EXPECT_EQ(runs("b"), Times());
}

TEST_F(ScheduleHandlerTest, SecondStartOfAllLeavesTheFirstOnesRunning) {
    setTasks({task("a", 600), task("b", 600, {{"RunAt", "12:10:00"}})});
    ScheduleHandler::startTask("ALL");
    ScheduleHandler::startTask("ALL");
    ASSERT_TRUE(settled(4));
    clock().advance(seconds(600));
    ASSERT_TRUE(settled(4));
    EXPECT_EQ(runs("a").size(), 2U);
    EXPECT_EQ(runs("b").size(), 2U);
    ScheduleHandler::stopTask("a");
    EXPECT_EQ(clock().pendingTimers(), 3U);
}

TEST_F(ScheduleHandlerTest, EntriesThatCannotRunAreNamedInTheLogAndTheOthersRun) {
    static std::atomic<int> reported;
    reported = 0;
    DispatchQueue::setExceptionHandler(
        [](std::string_view, std::string_view what) { reported += what == "the task's own fault" ? 1 : 0; });
    Array tasks = {"no dictionary", task("faulty", 60), task("unknown class", 60, {{"className", "Nobody's"}}),
                   task("unknown method", 60), task("no class", 60, {{"className", Value("")}})};
    for (const Value& time : {Value("02:00"), Value(""), Value("25:00:00"), Value("soon"), Value(Array{1})}) {
        tasks.emplace_back(task(("at " + time.description()).c_str(), 60, {{"RunAt", time}}));
    }
    tasks.emplace_back(task("a", 60));
    setTasks(std::move(tasks));
    ScheduleHandler::startTask("ALL");
    ASSERT_TRUE(settled(5));
    for (int i = 1; i <= 2; ++i) {
        clock().advance(seconds(60));
        ASSERT_TRUE(settled(5));
    }
    EXPECT_EQ(runs("a"), (Times{seconds(60), seconds(120)}));
    EXPECT_EQ(runs("faulty").size(), 2U);
    EXPECT_TRUE(eventually([] { return reported == 2; }));
    DispatchQueue::setExceptionHandler(nullptr);
    EXPECT_EQ(logged("/schedules.plist is no task: no dictionary\r\n"), 1);
    EXPECT_EQ(logged("][ERROR]Entry 0 of "), 1);
    for (const auto* time : {"02:00", "", "25:00:00", "soon"}) {
        EXPECT_EQ(logged(std::string("][ERROR]Task at ") + time + " is not scheduled: its RunAt \"" + time + "\""), 1);
    }
    EXPECT_EQ(logged("][ERROR]Task unknown class cannot run: there is no class Nobody's\r\n"), 2);
    EXPECT_EQ(logged("][ERROR]Task unknown method cannot run: ScheduleHandlerTest has no method unknown method\r\n"),
              2);
    EXPECT_EQ(logged("][ERROR]Task no class cannot run"), 2);
    EXPECT_TRUE(stored("unknown class").contains("LastScheduleTimeInMillis"));
}

TEST_F(ScheduleHandlerTest, IntervalThatIsNotAboveZeroNeverSpins) {
    for (const Value& interval : {Value(0), Value(-5), Value("often"), Value()}) {
        SCOPED_TRACE(interval.description());
        for (const bool daily : {false, true}) {
            restart();
            auto entry = task("a", 0, {{"RunAt", "12:01:00"}});
            daily ? void() : void(entry.remove("RunAt"));
            interval.isNull() ? void(entry.remove("IntervalSeconds")) : entry.set("IntervalSeconds", interval);
            setTasks({entry});
            const auto before = runs("a").size();
            const auto complaints = logged("][ERROR]The interval of task a is " + interval.description());
            clock().setWallTime(Date(seconds(1'794'744'000)));
            ScheduleHandler::startTask("ALL");
            ASSERT_TRUE(clock().awaitTimerIn(ScheduleHandler::kShortestInterval));
            clock().advance(ScheduleHandler::kShortestInterval);
            ASSERT_TRUE(clock().awaitTimerIn(ScheduleHandler::kShortestInterval));
            EXPECT_EQ(runs("a").size(), before + 1);
            EXPECT_EQ(logged("][ERROR]The interval of task a is " + interval.description()), complaints + 1);
        }
    }
}

TEST_F(ScheduleHandlerTest, UpdateChangesEveryEntryOfTheNameAndAllEntriesForAll) {
    setTasks({task("a", 1), task("b", 2), "no dictionary", task("a", 3)});
    const auto values = [this](std::string_view key) {
        Array list;
        const auto file = volume().readConfiguration("schedules.plist");
        for (const auto& entry : *file["ScheduleTasks"].array()) {
            list.push_back(entry.dictionary() ? (*entry.dictionary())[key] : entry);
        }
        return list;
    };
    ScheduleHandler::UpdateTaskWithName("a", "IntervalSeconds", 9);
    EXPECT_EQ(values("IntervalSeconds"), (Array{9, 2, "no dictionary", 9}));
    ScheduleHandler::UpdateTaskWithName("ALL", "New", "x");
    EXPECT_EQ(values("New"), (Array{"x", "x", "no dictionary", "x"}));
    ScheduleHandler::UpdateTaskWithName("nobody's", "New", "y");
    EXPECT_EQ(values("New"), (Array{"x", "x", "no dictionary", "x"}));
    EXPECT_EQ(logged(" going to write to schedules.plist\r\n"), 3);
    EXPECT_EQ(ScheduleHandler::getProperty("IntervalSeconds", "a"), Value(9));
    EXPECT_TRUE(ScheduleHandler::getProperty("IntervalSeconds", "ALL").isNull());
    EXPECT_TRUE(ScheduleHandler::getProperty("missing", "a").isNull());

    std::filesystem::remove(volume().conf() / "schedules.plist");
    ScheduleHandler::startTask("ALL");
    EXPECT_EQ(clock().pendingTimers(), 0U);
    ScheduleHandler::UpdateTaskWithName("a", "New", "x");
    EXPECT_TRUE(volume().readConfiguration("schedules.plist").empty());
}

TEST_F(ScheduleHandlerTest, BatchCollectionRepeatsUnlessCollectionIsRealtime) {
    const auto handler = ScheduleHandler::init();
    EXPECT_EQ(handler->name(), "ScheduleHandler");
    for (const bool realtime : {true, false}) {
        GlobalVariables::getInstance().setIsRealTime(realtime);
        EXPECT_EQ(ScheduleHandler::init(), handler);
        const auto repeat = stored("EventCollection")["Repeat"];
        ASSERT_NE(repeat.string(), nullptr);
        EXPECT_EQ(*repeat.string(), realtime ? "false" : "true");
        EXPECT_EQ(stored("SyncConfiguration")["Repeat"], Value(true));
    }
    EXPECT_EQ(logged("][DEBUG]ScheduleHandler initialised\r\n"), 1);
    EXPECT_EQ(logged("][DEBUG]ScheduleHandler init called\r\n"), 3);
    EXPECT_EQ(logged("][INFO]updating EventCollection schedule\r\n"), 3);
}

TEST_F(ScheduleHandlerTest, CancelledBeforeItsStartItStartsNothing) {
    const auto handler = ScheduleHandler::init();
    handler->cancel();
    handler->start();
    EXPECT_TRUE(handler->isFinished());
    EXPECT_EQ(logged("][ERROR]ScheduleHandler start failed\r\n"), 1);
    EXPECT_EQ(clock().pendingTimers(), 0U);
}

// A spool of one file that takes up what it is told to.
class SpoolOfSize final : public FileSystem {
  public:
    std::uint64_t allocated = 0;
    bool fails = false;

  private:
    Result<FileStatus> linkStatus(const std::string& path) override {
        auto status = FileSystem::linkStatus(path);
        if (status && path.ends_with("event_1")) {
            status->allocatedSize = allocated;
        }
        return status;
    }
    Result<std::vector<std::string>> names(const std::string& folder) override {
        if (fails) {
            throw std::runtime_error("the volume is gone");
        }
        return FileSystem::names(folder);
    }
};

TEST_F(ScheduleHandlerTest, SizeGuardSetsItsFlagAtEveryCheck) {
    struct Case {
        std::int64_t limit;
        std::uint64_t size;
        bool reached;
    };
    const Case cases[] = {
        {1, 999'999'999, false},
        {1, 1'000'000'000, true},
        {1, 2'000'000'000, true},
        {2, 1'999'999'999, false},
        {0, 0, true},
        {-1, 0, true},
        {std::numeric_limits<std::int64_t>::max(), 5, false},
        {std::numeric_limits<std::int64_t>::min(), 0, true},
    };
    std::ofstream(volume().eventData() / "event_1") << "x";
    setTasks({task("guard", 60, {{"className", "ScheduleHandler"}, {"selector", "CheckEventDatasize"}})});
    auto& configuration = GlobalVariables::getInstance();
    int changes = 0;
    const auto observation =
        configuration.observe(GlobalVariables::kMaxEventDataSizeReached, [&](const auto&) { ++changes; });
    SpoolOfSize spool;
    FileSystem::install(&spool);
    int reports = 0;
    for (const auto& [limit, size, reached] : cases) {
        SCOPED_TRACE(::testing::Message() << size << " of " << limit << " GB");
        configuration.setEventDataSize(limit);
        spool.allocated = size;
        ScheduleHandler::runTask(
            task("guard", 60, {{"className", "ScheduleHandler"}, {"selector", "CheckEventDatasize"}}));
        EXPECT_EQ(configuration.maxEventDataSizeReached(), reached);
        reports += reached ? 1 : 0;
    }
    EXPECT_EQ(changes, static_cast<int>(std::size(cases)));
    EXPECT_EQ(logged("][DEBUG]Going to check EventData folder size\r\n"), changes);
    EXPECT_EQ(logged("][INFO]EventCollection has to be stopped as event data has reached max size\r\n"), reports);
    EXPECT_EQ(stored("guard")["LastScheduleTimeInMillis"], Value(1'794'744'000));

    spool.fails = true;
    ScheduleHandler::init()->CheckEventDatasize();
    FileSystem::install(nullptr);
    EXPECT_EQ(logged("][ERROR]the volume is gone\r\n"), 1);
    EXPECT_TRUE(configuration.maxEventDataSizeReached());
    EXPECT_EQ(changes, static_cast<int>(std::size(cases)));
}

}  // namespace
}  // namespace sentrova
