#include "collection/EventCollectionSchedule.h"
#include "core/GlobalVariables.h"
#include "forwarding/EventQueueGCD.h"
#include "foundation/run/NotificationCenter.h"
#include "support/AgentFixture.h"
#include "volume/TrailWriter.h"

#include <future>

#include <gtest/gtest.h>

namespace sentrova::testing {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

class EventCollectionScheduleTest : public ::testing::Test, protected AgentFixture {
  protected:
    void addTrail(const char* name, std::chrono::seconds modified, std::initializer_list<std::chrono::seconds> times) {
        TrailWriter trail;
        for (const auto time : times) {
            trail.add(TrailRecord(6152).at(time).returns(0));
        }
        volume().addTrail(name, trail.bytes(), modified);
    }

    Value stamp() {
        const auto tasks = volume().readConfiguration("schedules.plist")["ScheduleTasks"];
        return (*tasks.array()->at(0).dictionary())["LastScheduleTimeInMillis"];
    }
};

TEST_F(EventCollectionScheduleTest, RunIsRefusedWhileItsConditionsDoNotHold) {
    auto& configuration = GlobalVariables::getInstance();
    for (const std::string flags : {"1 0 0 0", "0 1 0 0", "0 0 1 0"}) {
        configuration.setIsEnabled(flags[2] == '0');
        configuration.setMaxEventDataSizeReached(flags[4] == '1');
        EventCollectionSchedule operation;
        flags[0] == '1' ? operation.cancelOperation() : void();
        operation.start();
        EXPECT_TRUE(operation.isFinished()) << flags;
        EXPECT_EQ(logged("[INFO]" + flags + "\r\n"), 1);
    }
    // A link in place of the spool folder; first one that another user may have created.
    configuration.setMaxEventDataSizeReached(false);
    fs::rename(volume().eventData(), volume().root() / "elsewhere");
    fs::create_symlink(volume().root() / "elsewhere", volume().eventData());
    fs::permissions(volume().agent(), fs::perms::others_write, fs::perm_options::add);
    EventCollectionSchedule().start();
    EventCollectionSchedule().start();
    EXPECT_TRUE(stamp().isNull());
    EXPECT_EQ(logged("[ERROR]EventCollectionFiles didn't run because conditions didnot match"), 5);
    EXPECT_EQ(logged("[ERROR]Batch collection does not run: the agent is disabled (isEnabled)"), 1);
    EXPECT_EQ(logged("[ERROR]Batch collection does not run: the spool has reached its size limit"), 1);
    EXPECT_EQ(logged("[ERROR]Batch collection does not run: cannot use "), 1) << "once, though it is tried twice";
    EXPECT_EQ(logged("[ERROR]Batch collection does not run: "), 3);
    fs::permissions(volume().agent(), fs::perms::others_write, fs::perm_options::remove);
    EventCollectionSchedule().start();
    EXPECT_FALSE(stamp().isNull());
}

TEST_F(EventCollectionScheduleTest, FilesAreReadInOrderOfTheirModificationOldestFirst) {
    addTrail("a-newest", 3000s, {2500s});
    addTrail("z-oldest", 1000s, {500s});
    addTrail("current", 1500s, {1400s});
    addTrail("no trail", 1600s, {});
    addTrail("m-middle", 2000s, {1500s});
    EventCollectionSchedule operation;
    operation.start();
    EXPECT_TRUE(operation.isFinished());
    EXPECT_EQ(EventQueueGCD::length(), 3U);
    std::size_t at = 0;
    for (const auto* name : {"z-oldest", "no trail", "m-middle", "a-newest"}) {
        at = log().find(std::string("/var/audit/") + name + " file read", at);
        EXPECT_NE(at, std::string::npos) << name;
    }
    EXPECT_EQ(logged(" file read"), 4) << "none for a file that is not to be read";
    EXPECT_EQ(stamp(), Value(clock().epochSeconds()));
    fs::remove_all(volume().auditFolder());
    clock().advance(90s);
    EventCollectionSchedule().start();
    EXPECT_EQ(stamp(), Value(clock().epochSeconds())) << "a run over nothing is stamped the same";
}

TEST_F(EventCollectionScheduleTest, SecondPassWaitsForTheFirst) {
    serverInfo.set("NumberofEventsPerRequest", 1);
    restartConfigured();
    addTrail("trail", 3000s, {1000s, 1001s, 1002s});
    std::future<void> second;
    EventCollectionSchedule cancelled;
    std::future<void> third;
    int files = 0;
    const auto begin = [&](const Notification&) {
        if (++files == 1) {
            second = std::async(std::launch::async, [] { EventCollectionSchedule().start(); });
            third = std::async(std::launch::async, [&cancelled] { cancelled.start(); });
            EXPECT_TRUE(eventually([this] { return logged("EventCollectionFiles start called") == 3; }));
            EXPECT_TRUE(eventually([&cancelled] { return cancelled.isExecuting(); }));
            cancelled.cancelOperation();
        }
    };
    const auto observer = NotificationCenter::defaultCenter().addObserver(EventQueueGCD::kEventFileNotification, begin);
    EventCollectionSchedule().start();
    second.get();
    third.get();
    EXPECT_EQ(files, 2);
    EXPECT_EQ(logged("EventCollector Init called"), 2) << "the pass that was cancelled while it waited reads nothing";
    EXPECT_EQ(EventQueueGCD::length(), 1U) << "each event came once";
}

TEST_F(EventCollectionScheduleTest, CancelEndsOnlyTheCurrentFile) {
    serverInfo.set("NumberofEventsPerRequest", 1);
    restartConfigured();
    addTrail("first", 3000s, {1000s, 1001s, 1002s, 1003s});
    addTrail("second", 4000s, {3500s, 3501s});
    EventCollectionSchedule operation;
    int files = 0;
    // Posted during the reading, when the second event comes.
    const auto cancel = [&](const Notification&) { ++files == 1 ? operation.cancel() : void(); };
    const auto observer =
        NotificationCenter::defaultCenter().addObserver(EventQueueGCD::kEventFileNotification, cancel);
    operation.start();
    EXPECT_EQ(files, 3);
    EXPECT_EQ(EventQueueGCD::length(), 1U);
    EXPECT_EQ(logged("EventCollector cancel called"), 1);
    EXPECT_EQ(logged(" file read"), 2);
    EXPECT_EQ(stamp(), Value(clock().epochSeconds()));
}

}  // namespace sentrova::testing
