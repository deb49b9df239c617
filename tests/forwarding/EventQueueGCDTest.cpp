#include "forwarding/EventQueueGCD.h"
#include "forwarding/TransportEngine.h"
#include "foundation/FileSystem.h"
#include "foundation/Mutex.h"
#include "foundation/NotificationCenter.h"
#include "support/AgentFixture.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// The notifications of the spool, in their order; those of files by the file's name.
class Announcements {
  public:
    Announcements() {
        for (const auto* name : {EventQueueGCD::kEventFileNotification, EventQueueGCD::kEventForwardNotification,
                                 EventQueueGCD::kTimeUpdateNotification}) {
            observers_.push_back(NotificationCenter::defaultCenter().addObserver(
                name, [this](const Notification& notification) { note(notification); }));
        }
    }

    std::vector<std::string> all() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return all_;
    }
    std::size_t count(const std::string& name) {
        const auto noted = all();
        return static_cast<std::size_t>(std::ranges::count(noted, name));
    }

  private:
    void note(const Notification& notification) EXCLUDES(mutex_) {
        EXPECT_EQ(notification.object, EventQueueGCD::identity());
        const auto* url = notification.userInfo[EventQueueGCD::kFileUrl].string();
        MutexLock lock(mutex_);
        all_.push_back(url ? FileUrl::parse(*url)->lastPathComponent() : std::string(notification.name));
    }

    Mutex mutex_;
    std::vector<std::string> all_ GUARDED_BY(mutex_);
    std::vector<Subscription> observers_;
};

class FullDisk final : public FileSystem {
  public:
    FullDisk() { install(this); }
    ~FullDisk() override { install(nullptr); }

    Result<Done> writeAtomically(const std::string& path, std::span<const std::uint8_t> content,
                                 Durability durability) override {
        return path.find("/event_") != std::string::npos ? posixError(ENOSPC)
                                                         : FileSystem::writeAtomically(path, content, durability);
    }
};

void enqueue(int from, int to) {
    for (int number = from; number <= to; ++number) {
        EventQueueGCD::enqueue({{"n", number}});
    }
}

}  // namespace

// Batches of three events.
class EventQueueGCDTest : public ::testing::Test, protected AgentFixture {
  protected:
    // The content of the spooled files by their names.
    std::map<std::string, std::string> files() {
        std::map<std::string, std::string> found;
        for (const auto& entry : fs::directory_iterator(volume().eventData())) {
            std::ostringstream text;
            text << std::ifstream(entry.path()).rdbuf();
            found[entry.path().filename()] = text.str();
        }
        return found;
    }

    FileUrl url(const std::string& name) { return FileUrl((volume().eventData() / name).string()); }
};

TEST_F(EventQueueGCDTest, FullBatchBecomesAFileWhenTheNextEventComes) {
    fs::remove(volume().eventData());
    EventQueueGCD::init();
    EventQueueGCD::init();
    EXPECT_EQ(logged("EventQueueGCD queueData initialised"), 1);
    EXPECT_EQ(logged("EventQueueGCD init Finished"), 2);
    Announcements announced;
    enqueue(1, 3);
    EXPECT_TRUE(files().empty());
    enqueue(4, 4);
    EXPECT_EQ(files(),
              (std::map<std::string, std::string>{{"event_20261115120000000", R"([{"n":1},{"n":2},{"n":3}])"}}));
    EXPECT_EQ(announced.all(), std::vector<std::string>{"event_20261115120000000"});
    EXPECT_EQ(EventQueueGCD::length(), 1U);
    EXPECT_EQ(logged("[INFO] filename "), 1);
}

TEST_F(EventQueueGCDTest, BatchesOfOneMillisecondGetNamesOfTheirOwn) {
    std::ofstream(volume().eventData() / "event_20261115120000001") << "of an earlier run";
    enqueue(1, 10);
    EXPECT_EQ(files(),
              (std::map<std::string, std::string>{{"event_20261115120000000", R"([{"n":1},{"n":2},{"n":3}])"},
                                                  {"event_20261115120000001", "of an earlier run"},
                                                  {"event_20261115120000002", R"([{"n":4},{"n":5},{"n":6}])"},
                                                  {"event_20261115120000003", R"([{"n":7},{"n":8},{"n":9}])"}}));
    // A file that has been delivered does not give its name to another, nor does a clock that is set back a little.
    fs::remove(volume().eventData() / "event_20261115120000003");
    clock().setWallTime(clock().wallTime() - 1s);
    enqueue(11, 13);
    EXPECT_TRUE(files().contains("event_20261115120000004"));
    clock().setWallTime(clock().wallTime() - 48h);
    enqueue(14, 16);
    EXPECT_TRUE(files().contains("event_20261113115959000"));
}

TEST_F(EventQueueGCDTest, EventThatJsonCannotCarryIsDropped) {
    EventQueueGCD::enqueue({{"date", clock().wallTime()}});
    EventQueueGCD::enqueue({{"deep", Array{Data{1}}}});
    EventQueueGCD::enqueue({{"text", "\xFF"}});
    EXPECT_EQ(logged("[ERROR]Invalid json {"), 3);
    EXPECT_EQ(EventQueueGCD::length(), 0U);
    enqueue(1, 3);
    EXPECT_TRUE(files().empty()) << "they do not count toward the batch";
}

TEST_F(EventQueueGCDTest, EveryEventIsFollowedByItsPairOfNotifications) {
    EventQueueGCD::init();
    Announcements announced;
    enqueue(1, 2);
    clock().advance(5s);
    enqueue(3, 3);
    clock().advance(4999ms);
    EventQueueGCD::length();
    EXPECT_TRUE(announced.all().empty());
    clock().advance(1ms);
    ASSERT_TRUE(eventually([&] { return announced.all().size() >= 4; }));
    EXPECT_EQ(announced.all(), (std::vector<std::string>{"EventForwardNotification", "TimeUpdateNotification",
                                                         "EventForwardNotification", "TimeUpdateNotification"}));
    ASSERT_TRUE(clock().awaitTimerIn(5s));
    clock().advance(5s);
    ASSERT_TRUE(eventually([&] { return announced.all().size() >= 6; }));
    clock().advance(14999ms);
    EventQueueGCD::length();
    EXPECT_EQ(announced.all().size(), 6U);
    clock().advance(1ms);
    ASSERT_TRUE(eventually([&] { return announced.all().size() >= 7; }));
    EXPECT_EQ(announced.all().back(), "TimeUpdateNotification") << "once, 30 seconds after the start";
}

TEST_F(EventQueueGCDTest, EventsAndFilesAreHandedOutWhileTheServerIsReachable) {
    EXPECT_EQ(EventQueueGCD::dequeue(std::nullopt), std::nullopt);
    enqueue(1, 2);
    EXPECT_EQ(EventQueueGCD::dequeue(std::nullopt), R"([{"n":1},{"n":2}])");
    EXPECT_EQ(EventQueueGCD::length(), 0U);
    EXPECT_EQ(logged("EventQueueGCD dequeue count 2"), 1);

    std::ofstream(volume().eventData() / "event_1") << "[]";
    EXPECT_EQ(EventQueueGCD::dequeue(url("event_1")), "[]");
    EXPECT_TRUE(files().contains("event_1")) << "the forwarder deletes it";
    EXPECT_EQ(EventQueueGCD::dequeue(url("event_2")), std::nullopt);
}

TEST_F(EventQueueGCDTest, WorkIsAnnouncedAgainLaterWhileTheServerIsNotReachable) {
    EventQueueGCD::init();
    TransportEngine::setIsConnected(false);
    std::ofstream(volume().eventData() / "event_1") << "[]";
    Announcements announced;
    EXPECT_EQ(EventQueueGCD::dequeue(std::nullopt), std::nullopt);
    EXPECT_EQ(logged("Created Event notification again"), 0) << "nothing is announced where there is nothing";
    enqueue(1, 2);
    EXPECT_EQ(EventQueueGCD::dequeue(std::nullopt), std::nullopt);
    EXPECT_EQ(EventQueueGCD::dequeue(url("event_1")), std::nullopt);
    EXPECT_EQ(EventQueueGCD::length(), 2U);
    EXPECT_TRUE(files().contains("event_1"));

    clock().advance(9999ms);
    EventQueueGCD::length();
    EXPECT_TRUE(announced.all().empty());
    clock().advance(1ms);
    ASSERT_TRUE(eventually([&] { return announced.count("event_1") == 1 && announced.all().size() == 5; }));
    clock().advance(19999ms);
    EventQueueGCD::length();
    EXPECT_EQ(announced.count("EventForwardNotification"), 2U) << "those that follow the two events";
    clock().advance(1ms);
    EXPECT_TRUE(eventually([&] { return announced.count("EventForwardNotification") == 3; }));
    EXPECT_EQ(announced.count("event_1"), 1U);
}

TEST_F(EventQueueGCDTest, BatchThatCannotBeWrittenIsNamedInTheLog) {
    const FullDisk disk;
    Announcements announced;
    enqueue(1, 4);
    EXPECT_EQ(logged("[ERROR]A batch of 3 events is lost: "), 1);
    EXPECT_TRUE(files().empty());
    EXPECT_EQ(announced.all().size(), 1U) << "the file is announced all the same";
    EXPECT_EQ(EventQueueGCD::dequeue(url(announced.all().front())), std::nullopt);
    EXPECT_EQ(EventQueueGCD::length(), 1U);
}

}  // namespace sentrova::testing
