#include "core/GlobalVariables.h"
#include "foundation/run/BackgroundActivity.h"
#include "foundation/run/NotificationCenter.h"
#include "operations/ScheduleHandler.h"
#include "operations/TaskList.h"
#include "support/AgentFixture.h"
#include "support/FaultyFileSystem.h"

#include <atomic>
#include <cerrno>
#include <cmath>
#include <fstream>
#include <future>
#include <limits>
#include <map>
#include <tuple>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using std::chrono::hours;
using std::chrono::seconds;

class ScheduleHandlerTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    using Times = std::vector<seconds>;
    using Entries = std::initializer_list<Dictionary::Entry>;

    ScheduleHandlerTest() {
        for (const auto* name : {"a", "b", "c", "d", "e", "f"}) {
            taskClasses["ScheduleHandlerTest"][name] = [this, name] { noteRun(name); };
        }
        restart();
    }

    // Ends the tasks first, because they use this object's members.
    void TearDown() override { restart(); }

    // An enabled task that runs the test method with the task's name.
    static Dictionary task(const char* name, const Value& interval, Entries more = {}) {
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
    // The key's value in each entry of the file; the entry itself if it is not a dictionary.
    Array stored(std::string_view key) {
        auto list = *volume().readConfiguration("schedules.plist")["ScheduleTasks"].array();
        for (auto& entry : list) {
            entry = entry.dictionary() ? Value((*entry.dictionary())[key]) : entry;
        }
        return list;
    }

    void noteRun(const std::string& name) {
        MutexLock lock(mutex_);
        runs_[name].push_back(std::chrono::duration_cast<seconds>(clock().wallTime() - start_));
    }
    // The times at which the task ran, since the beginning of the test.
    Times runs(const std::string& name) {
        MutexLock lock(mutex_);
        return runs_[name];
    }
    // Waits until that many timers are set: every continuing task has ended its run and waits for the next one.
    [[nodiscard]] bool settled(std::size_t timers) {
        return testing::eventually([&] { return clock().pendingTimers() == timers; });
    }

  private:
    Mutex mutex_;
    std::map<std::string, Times> runs_ GUARDED_BY(mutex_);
    const Date start_ = clock().wallTime();
};

TEST_F(ScheduleHandlerTest, EachTaskRunsExactlyWhenDueThroughoutAWeek) {
    setTasks({task("a", 6 * 3600), task("b", "86400", {{"RunAt", "02:00:00"}, {"TaskStatus", "Disable"}}),
              task("c", 10 * 3600, {{"Repeat", "false"}}), task("d", 5 * 3600, {{"TaskStatus", "enable"}}),
              task("e", 12 * 3600), task("f", 3600, {{"RunAt", "05:00:00"}, {"Repeat", false}})});
    ScheduleHandler::init()->start();
    ASSERT_TRUE(settled(6));
    EXPECT_EQ(logged("][INFO]Next fire time for b is 2026-11-16 02:00:00 UTC\r\n"), 1);
    std::map<std::string, Times> expected;
    for (int hour = 1; hour <= 7 * 24; ++hour) {
        const int intervalOfE = hour > 48 ? 8 : 12;
        for (const auto& [name, due] : {std::pair("a", hour % 6 == 0),
                                        {"b", hour % 24 == 14},
                                        {"c", hour == 10},
                                        {"e", hour % intervalOfE == 0},
                                        {"f", hour == 17}}) {
            if (due) {
                expected[name].emplace_back(hours(hour));
            }
        }
        clock().advance(hours(1));
        // Each day has its own log file.
        EXPECT_EQ(logged("][ERROR]"), 0) << hour;
        ASSERT_TRUE(settled(hour < 10 ? 6 : hour < 17 ? 5 : 4)) << hour;
        ASSERT_TRUE(testing::eventually([&] { return runs("c") == expected["c"] && runs("f") == expected["f"]; }))
            << hour;
        if (hour == 48) {
            ScheduleHandler::UpdateTaskWithName("e", "IntervalSeconds", 8 * 3600);
            ScheduleHandler::startTask("e");
        }
    }
    for (const auto* name : {"a", "b", "c", "d", "e", "f"}) {
        EXPECT_EQ(runs(name), expected[name]) << name;
    }
    const auto stamps = stored("LastScheduleTimeInMillis");
    EXPECT_EQ(stamps[0], Value(1'794'744'000 + 7 * 86'400));
    EXPECT_EQ(stamps[2], Value(1'794'744'000 + 36'000));
    EXPECT_TRUE(stamps[3].isNull());
    EXPECT_EQ(stored("LastScheduleTime")[0], Value("Sun, 22 Nov 2026 12:00:00 +0000"));
}

TEST_F(ScheduleHandlerTest, TaskHasOneTimerHoweverOftenItIsStarted) {
    setTasks({task("b", 700), task("a", 900, {{"RunAt", "12:10:00"}}), task("b", 600)});
    ScheduleHandler::startTask("a");
    {
        // A restarted task goes on even if the file cannot be read.
        testing::FaultyFileSystem faults([](const auto& path) { return path.ends_with("schedules.plist"); });
        faults.arm({.call = faults.kOpen, .error = EMFILE, .number = 1});
        ScheduleHandler::startTask("a");
    }
    EXPECT_TRUE(clock().awaitTimerIn(seconds(900))) << "by its name it follows its interval";
    EXPECT_EQ(ScheduleHandler::description(), "Printing the task array {\n    a = a;\n}");
    EXPECT_EQ(clock().pendingTimers(), 1U);
    ScheduleHandler::stopTask("a");
    ScheduleHandler::stopTask("a");
    EXPECT_EQ(logged("][INFO]a is not available in the list\r\n"), 1);
    EXPECT_EQ(clock().pendingTimers(), 0U);

    // As at a start: the first configuration sync re-times tasks before, or while, all tasks are started.
    ScheduleHandler::startTask("a");
    ScheduleHandler::startTask("b");
    const auto handler = std::async(std::launch::async, [] { ScheduleHandler::startTask("b"); });
    clock().refuse(2);
    ScheduleHandler::init()->start();
    handler.wait();
    ScheduleHandler::startTask("ALL");
    ASSERT_TRUE(settled(2));
    EXPECT_GT(logged("][ERROR]Task b occurs more than once in "), 0) << "only the last of two entries counts";
    clock().advance(seconds(600));
    ASSERT_TRUE(settled(2));
    EXPECT_EQ(runs("a"), Times{seconds(600)}) << "with all others it follows its time of day";
    EXPECT_EQ(runs("b"), Times{seconds(600)});
    ScheduleHandler::startTask("a");
    ASSERT_TRUE(settled(2)) << "its daily timer goes on beside the interval's";
    clock().advance(seconds(900));
    ASSERT_TRUE(settled(2));
    EXPECT_EQ(runs("a"), (Times{seconds(600), seconds(1500)}));
    ScheduleHandler::stopAllTasks();
    EXPECT_EQ(clock().pendingTimers(), 0U);
    const auto stopped = logged("][INFO]b schedule has been stopped\r\n");
    ScheduleHandler::stopTask("b");
    EXPECT_EQ(logged("][INFO]b schedule has been stopped\r\n"), stopped + 1) << "it was no longer in the list";
}

TEST_F(ScheduleHandlerTest, RunOfARestartedTaskWaitsForTheRunBeforeIt) {
    Semaphore mayEnd;
    std::atomic<int> begun = 0;
    BackgroundQueue queue(clock(), NotificationCenter::defaultCenter());
    TaskList tasks(queue);
    for (int start = 1; start <= 3; ++start) {
        tasks.startActivity("long", seconds(600), false, [&] {
            ++begun;
            mayEnd.wait();
        });
        clock().advance(seconds(600));
        // Each activity has one run, which has begun: it executes or waits.
        ASSERT_TRUE(testing::eventually([&] { return begun > 0 && !tasks.activity("long")->hasFurtherRun(); }));
        EXPECT_EQ(begun, 1);
    }
    mayEnd.signal();
    ASSERT_TRUE(testing::eventually([&] { return begun == 2; })) << "the run of the latest start was lost";
    mayEnd.signal();
    mayEnd.signal();
    queue.operations().waitUntilAllOperationsAreFinished();
    EXPECT_EQ(begun, 2) << "the run of a start that another one replaced";
}

TEST_F(ScheduleHandlerTest, EntriesThatCannotRunAreNamedInTheLogAndTheOthersRun) {
    setTasks({"no dictionary", task("unknown class", 60, {{"className", "Nobody's"}}), task("unknown method", 60),
              task("at soon", 60, {{"RunAt", "soon"}}), task("a", 60)});
    ScheduleHandler::startTask("ALL");
    for (int i = 1; i <= 3; ++i) {
        ASSERT_TRUE(settled(3));
        clock().advance(seconds(60));
    }
    ASSERT_TRUE(settled(3));
    EXPECT_EQ(runs("a"), (Times{seconds(60), seconds(120), seconds(180)}));
    for (const auto& [line, count] :
         {std::pair("/schedules.plist is not a task: no dictionary\r\n", 1),
          {"][ERROR]Task at soon is not scheduled: its RunAt \"soon\"", 1},
          {"][ERROR]Task unknown class cannot run: there is no class Nobody's\r\n", 3},
          {"][ERROR]Task unknown method cannot run: ScheduleHandlerTest has no method unknown method\r\n", 3}}) {
        EXPECT_EQ(logged(line), count) << line;
    }
}

TEST_F(ScheduleHandlerTest, IntervalIsARealNumberAboveZero) {
    using std::chrono::milliseconds;
    constexpr milliseconds kDefault = seconds(60);
    const std::pair<Value, milliseconds> cases[] = {
        {2.5, milliseconds(2500)}, {"0.5", milliseconds(500)}, {0, kDefault},      {-0.5, kDefault},
        {"often", kDefault},       {std::nan(""), kDefault},   {Value(), kDefault}};
    int complaints = 0;
    for (const auto& [interval, expected] : cases) {
        for (const bool daily : {false, true}) {
            SCOPED_TRACE(interval.description());
            restart();
            auto entry = task("a", 0);
            interval.isNull() ? void(entry.remove("IntervalSeconds")) : entry.set("IntervalSeconds", interval);
            daily ? entry.set("RunAt", "12:01:00") : void();
            setTasks({entry});
            clock().setWallTime(Date(seconds(1'794'744'000)));
            ScheduleHandler::startTask("ALL");
            ASSERT_TRUE(clock().awaitTimerIn(daily ? kDefault : expected));
            clock().advance(daily ? kDefault : expected);
            ASSERT_TRUE(clock().awaitTimerIn(expected));
            complaints += expected == kDefault ? 1 : 0;
            EXPECT_EQ(logged("][ERROR]Task a has the invalid interval "), complaints);
        }
    }
}

TEST_F(ScheduleHandlerTest, BatchCollectionRepeatsUnlessCollectionIsRealtimeAndAnUpdateCanApplyToAllTasks) {
    const auto handler = ScheduleHandler::init();
    for (const bool realtime : {true, false}) {
        GlobalVariables::getInstance().setIsRealTime(realtime);
        EXPECT_EQ(ScheduleHandler::init(), handler);
        EXPECT_EQ(stored("Repeat"), (Array{realtime ? "false" : "true", true, true}));
    }
    // Cancelled before its start, it starts no task.
    handler->cancel();
    handler->start();
    EXPECT_TRUE(handler->isFinished());
    EXPECT_EQ(clock().pendingTimers(), 0U);

    setTasks({task("a", 1), task("b", 2), "no dictionary", task("a", 3)});
    ScheduleHandler::UpdateTaskWithName("a", "IntervalSeconds", 9);
    ScheduleHandler::UpdateTaskWithName("ALL", "New", "x");
    ScheduleHandler::UpdateTaskWithName("nobody's", "New", "y");
    EXPECT_EQ(stored("IntervalSeconds"), (Array{9, 2, "no dictionary", 9}));
    EXPECT_EQ(stored("New"), (Array{"x", "x", "no dictionary", "x"}));
    EXPECT_EQ(ScheduleHandler::getProperty("IntervalSeconds", "a"), Value(9));
    EXPECT_TRUE(ScheduleHandler::getProperty("IntervalSeconds", "ALL").isNull());
}

TEST_F(ScheduleHandlerTest, SizeGuardSetsItsFlagAtEveryCheck) {
    // A spool of one file with an adjustable allocated size.
    struct SpoolOfSize final : platform::HostFileSystem {
        Result<FileStatus> linkStatus(const std::string& path) override {
            auto status = HostFileSystem::linkStatus(path);
            status->allocatedSize = path.ends_with("event_1") ? allocated : status->allocatedSize;
            return status;
        }
        std::uint64_t allocated = 0;
    } spool;
    using Limits = std::numeric_limits<std::int64_t>;
    std::ofstream(volume().eventData() / "event_1") << "x";
    auto& configuration = GlobalVariables::getInstance();
    int changes = 0;
    const auto observation =
        configuration.observe(GlobalVariables::kMaxEventDataSizeReached, [&](const auto&) { ++changes; });
    const testing::SwitchedFileSystem::Replacement replacement(spool);
    for (const auto& [limit, size, reached] : {std::tuple(std::int64_t{1}, 999'999'999U, false),
                                               {1, 1'000'000'000, true},
                                               {2, 1'999'999'999, false},
                                               {0, 0, true},
                                               {Limits::max(), 5, false},
                                               {Limits::min(), 0, true}}) {
        configuration.setEventDataSize(limit);
        spool.allocated = size;
        ScheduleHandler::runTask({{"className", "ScheduleHandler"}, {"selector", "CheckEventDatasize"}});
        EXPECT_EQ(configuration.maxEventDataSizeReached(), reached) << size << " of " << limit << " GB";
    }
    EXPECT_EQ(changes, 6);
}

}  // namespace
}  // namespace sentrova
