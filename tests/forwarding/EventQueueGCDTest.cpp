#include "forwarding/EventQueueGCD.h"
#include "forwarding/TransportEngine.h"
#include "foundation/Mutex.h"
#include "foundation/NotificationCenter.h"
#include "support/AgentFixture.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <tuple>

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

TEST_F(EventQueueGCDTest, FullBatchBecomesAFileOfItsOwnWhenTheNextEventComes) {
    fs::remove(volume().eventData());
    EventQueueGCD::init();
    std::ofstream(volume().eventData() / "event_20261115120000001") << "of an earlier run";
    Announcements announced;
    enqueue(1, 3);
    EXPECT_EQ(announced.all(), std::vector<std::string>());
    enqueue(4, 10);
    std::map<std::string, std::string> expected = {{"event_20261115120000000", R"([{"n":1},{"n":2},{"n":3}])"},
                                                   {"event_20261115120000001", "of an earlier run"},
                                                   {"event_20261115120000002", R"([{"n":4},{"n":5},{"n":6}])"},
                                                   {"event_20261115120000003", R"([{"n":7},{"n":8},{"n":9}])"}};
    EXPECT_EQ(files(), expected);
    EXPECT_EQ(announced.all(), (std::vector<std::string>{"event_20261115120000000", "event_20261115120000002",
                                                         "event_20261115120000003"}));
    EXPECT_EQ(EventQueueGCD::length(), 1U);
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
    // How many there are after each further time, a pair for each event and, 30 seconds after the start, one more; and
    // the timers that are set then.
    const std::tuple<std::chrono::milliseconds, std::size_t, std::size_t> moments[] = {
        {4999ms, 0, 2}, {1ms, 4, 2}, {4999ms, 4, 2}, {1ms, 6, 1}, {14999ms, 6, 1}, {1ms, 7, 0}};
    for (const auto& [further, count, timers] : moments) {
        clock().advance(further);
        ASSERT_TRUE(eventually([&] { return announced.all().size() >= count && clock().pendingTimers() == timers; }));
        EventQueueGCD::length();
        EXPECT_EQ(announced.all().size(), count);
    }
    EXPECT_EQ(announced.count("EventForwardNotification"), 3U);
    EXPECT_EQ(announced.all().back(), "TimeUpdateNotification");
}

TEST_F(EventQueueGCDTest, WorkIsAnnouncedAgainLaterWhileTheServerIsNotReachable) {
    EventQueueGCD::init();
    TransportEngine::setIsConnected(false);
    std::ofstream(volume().eventData() / "event_1") << "[]";
    Announcements announced;
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

    TransportEngine::setIsConnected(true);
    EXPECT_EQ(EventQueueGCD::dequeue(std::nullopt), R"([{"n":1},{"n":2}])");
    EXPECT_EQ(EventQueueGCD::dequeue(std::nullopt), std::nullopt);
    EXPECT_EQ(EventQueueGCD::dequeue(url("event_1")), "[]");
    EXPECT_TRUE(files().contains("event_1")) << "the forwarder deletes it";
    EXPECT_EQ(EventQueueGCD::dequeue(url("event_2")), std::nullopt);
}

}  // namespace sentrova::testing
