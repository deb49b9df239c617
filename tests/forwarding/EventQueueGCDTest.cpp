#include "forwarding/EventQueueGCD.h"
#include "forwarding/TransportEngine.h"
#include "foundation/run/Mutex.h"
#include "foundation/run/NotificationCenter.h"
#include "support/AgentFixture.h"
#include "support/FaultyFileSystem.h"

#include <cerrno>
#include <fstream>
#include <stdexcept>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// The spool's notifications in their order; a file notification as the file's name.
class Announcements {
  public:
    std::vector<std::string> all() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return all_;
    }
    std::size_t count(const std::string& name) {
        const auto noted = all();
        return static_cast<std::size_t>(std::ranges::count(noted, name));
    }

  private:
    Subscription observe(const char* name) {
        return NotificationCenter::defaultCenter().addObserver(name, [this](const Notification& notification) {
            EXPECT_EQ(notification.object, EventQueueGCD::identity());
            const auto* url = notification.userInfo[EventQueueGCD::kFileUrl].string();
            MutexLock lock(mutex_);
            all_.push_back(url ? FileUrl::parse(*url)->lastPathComponent() : std::string(notification.name));
        });
    }

    Mutex mutex_;
    std::vector<std::string> all_ GUARDED_BY(mutex_);
    const Subscription observers_[3] = {observe(EventQueueGCD::kEventFileNotification),
                                        observe(EventQueueGCD::kEventForwardNotification),
                                        observe(EventQueueGCD::kTimeUpdateNotification)};
};

void enqueue(int from, int to) {
    for (int number = from; number <= to; ++number) {
        EventQueueGCD::enqueue({{"n", number}});
    }
}

}  // namespace

// The batch size is three events.
class EventQueueGCDTest : public ::testing::Test, protected AgentFixture {
  protected:
    // The content of each spool file, by name.
    std::map<std::string, std::string> files() {
        std::map<std::string, std::string> found;
        for (const auto& entry : fs::directory_iterator(volume().eventData())) {
            found[entry.path().filename()] = textOf(entry.path());
        }
        return found;
    }

    FileUrl url(const std::string& name) { return FileUrl((volume().eventData() / name).string()); }
};

TEST_F(EventQueueGCDTest, FullBatchIsWrittenToAFileWhenTheNextEventComes) {
    fs::remove(volume().eventData());
    EventQueueGCD::init();
    std::ofstream(volume().eventData() / "event_20261115120000001") << "of an earlier run";
    Announcements announced;
    enqueue(1, 2);
    // An event that JSON cannot represent is dropped and does not count toward the batch.
    for (const Dictionary& event : {Dictionary{{"date", Date()}}, {{"deep", Array{Data{1}}}}, {{"text", "\xFF"}}}) {
        EventQueueGCD::enqueue(event);
    }
    EXPECT_EQ(logged("[ERROR]Invalid json {"), 3);
    enqueue(3, 3);
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
    // The name of a delivered file is not used again, even if the clock is set back a little.
    fs::remove(volume().eventData() / "event_20261115120000003");
    clock().setWallTime(clock().wallTime() - 1s);
    enqueue(11, 13);
    EXPECT_TRUE(files().contains("event_20261115120000004"));
    clock().setWallTime(clock().wallTime() - 48h);
    enqueue(14, 16);
    EXPECT_TRUE(files().contains("event_20261113115959000"));

    // A batch that cannot be written is named with the times of its events.
    EventQueueGCD::dequeue(std::nullopt);
    FaultyFileSystem full([](const auto& path) { return path.find("/event_") != std::string::npos; });
    full.arm({.call = full.kRename, .error = ENOSPC, .number = 1});
    for (const int time : {5, 3, 9, 7}) {
        EventQueueGCD::enqueue({{"record_time", time}});
    }
    EXPECT_EQ(logged("[ERROR]A batch of 3 events is lost, recorded from 3 to 9: "), 1);
}

TEST_F(EventQueueGCDTest, EveryEventIsFollowedByItsPairOfNotificationsWhateverAnObserverThrows) {
    EventQueueGCD::init();
    const auto faulty = NotificationCenter::defaultCenter().addObserver(
        EventQueueGCD::kEventForwardNotification, [](const Notification&) { throw std::runtime_error("a fault"); });
    Announcements announced;
    enqueue(1, 2);
    clock().advance(5s);
    enqueue(3, 3);
    // After each step of time: the number of notifications (a pair per event and, 30 seconds after the start, one more)
    // and the number of pending timers.
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

TEST_F(EventQueueGCDTest, EventsInMemoryAreReannouncedWhileTheServerIsNotReachable) {
    EventQueueGCD::init();
    TransportEngine::setIsConnected(false);
    Announcements announced;
    enqueue(1, 2);
    EXPECT_EQ(EventQueueGCD::dequeue(std::nullopt), std::nullopt);
    EXPECT_EQ(EventQueueGCD::dequeue(std::nullopt), std::nullopt);
    EXPECT_EQ(EventQueueGCD::length(), 2U);
    clock().advance(29999ms);
    ASSERT_TRUE(eventually([&] { return announced.all().size() >= 4; }));
    EventQueueGCD::length();
    EXPECT_EQ(announced.count("EventForwardNotification"), 2U) << "those that follow the two events";
    clock().advance(1ms);
    EventQueueGCD::length();
    EXPECT_EQ(announced.count("EventForwardNotification"), 3U) << "one more, though two calls found no server";

    TransportEngine::setIsConnected(true);
    EXPECT_EQ(EventQueueGCD::dequeue(std::nullopt), R"([{"n":1},{"n":2}])");
    EXPECT_EQ(EventQueueGCD::dequeue(std::nullopt), std::nullopt);
    EXPECT_EQ(EventQueueGCD::dequeue(url("event_2")), std::nullopt) << "there is none";
}

TEST_F(EventQueueGCDTest, FileIsReannouncedAfterAShortageAndNotAfterOtherErrors) {
    EventQueueGCD::init();
    std::ofstream(volume().eventData() / "event_1") << "[]";
    FaultyFileSystem files([](const auto& path) { return path.ends_with("/event_1"); });
    Announcements announced;
    for (const auto& [error, count] : {std::pair(EMFILE, 1U), {ENOMEM, 2U}, {EIO, 2U}}) {
        files.arm({.call = files.kOpen, .error = error, .number = 1});
        EXPECT_EQ(EventQueueGCD::dequeue(url("event_1")), std::nullopt);
        clock().advance(10s);
        EventQueueGCD::length();
        EXPECT_EQ(announced.count("event_1"), count) << error;
    }
}

TEST_F(EventQueueGCDTest, BacklogIsAnnouncedInPortionsAndInNameOrder) {
    constexpr auto kPortion = EventQueueGCD::kFilesAnnounced;
    std::vector<std::string> names;
    for (auto i = 3 * kPortion; i > 0; --i) {
        names.push_back(fmt::format("event_{:017}", i));
        std::ofstream(volume().eventData() / names.back()) << "[]";
    }
    std::ranges::sort(names);
    for (const auto* name : {"undelivered_1", ".event_1.new"}) {
        std::ofstream(volume().eventData() / name) << "[]";
    }
    Announcements announced;
    const auto dequeueFrom = [&](std::size_t first, std::size_t count, const std::optional<std::string>& expected) {
        for (auto i = first; i < first + count; ++i) {
            EXPECT_EQ(EventQueueGCD::dequeue(url(names.at(i))), expected) << names.at(i);
        }
    };
    EventQueueGCD::announceFiles();
    EXPECT_EQ(announced.all().size(), kPortion);
    dequeueFrom(0, kPortion, "[]");
    EXPECT_EQ(announced.all(), std::vector(names.begin(), names.begin() + 2 * kPortion)) << "one for each taken";

    // An outage costs one portion per round, however many files wait, and does not change their order.
    TransportEngine::setIsConnected(false);
    dequeueFrom(kPortion, kPortion, std::nullopt);
    enqueue(1, 4);
    EXPECT_EQ(announced.count(names[kPortion]), 1U) << "the next round comes in ten seconds";
    clock().advance(10s);
    ASSERT_TRUE(eventually([&] { return announced.count(names[2 * kPortion - 1]) == 2; }));
    TransportEngine::setIsConnected(true);
    dequeueFrom(kPortion, 2 * kPortion, "[]");
    auto all = announced.all();
    std::erase_if(all, [](const auto& name) { return name.ends_with("Notification"); });
    names.push_back("event_20261115120000000");
    EXPECT_EQ(std::vector(all.begin() + 2 * kPortion, all.end()), std::vector(names.begin() + kPortion, names.end()));
}

}  // namespace sentrova::testing
