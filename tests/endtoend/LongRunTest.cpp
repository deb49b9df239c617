// Hours and days of the agent's work, with a clock that the test moves.

#include "collection/EventCollector.h"
#include "core/GlobalVariables.h"
#include "endtoend/EndToEnd.h"
#include "foundation/files/FileDescriptor.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/Mutex.h"
#include "service/AgentServiceHandler.h"
#include "support/AgentFixture.h"
#include "support/Footprint.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <iostream>
#include <thread>

#include <fmt/ranges.h>
#include <gtest/gtest.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMebibyte = 1024 * 1024;
// The number of files that reach the spool's limit of one gigabyte.
constexpr std::size_t kFilesToTheLimit = 80;

// Reports spool files as larger than they are, and records the order of their deletion.
class HeavyFiles final : public platform::HostFileSystem {
  public:
    Result<FileStatus> linkStatus(const std::string& path) override {
        auto status = HostFileSystem::linkStatus(path);
        if (status && path.find("eventData") != std::string::npos) {
            status->allocatedSize = 1'000'000'000 / kFilesToTheLimit;
        }
        return status;
    }
    int hostRemove(const Location& at) override {
        const MutexLock lock(mutex_);
        if (at.name.starts_with("event_")) {
            removed_.push_back(at.name);
        }
        return HostFileSystem::hostRemove(at);
    }
    std::vector<std::string> removed() {
        const MutexLock lock(mutex_);
        return removed_;
    }

  private:
    Mutex mutex_;
    std::vector<std::string> removed_ GUARDED_BY(mutex_);
    const SwitchedFileSystem::Replacement replacement_{*this};
};

// The service in this process, with a server that only records the events.
class LongRun : public AgentFixture {
  public:
    LongRun(bool isRealTime, std::uint32_t batch) {
        serverInfo.set("IsRealTime", isRealTime);
        serverInfo.set("NumberofEventsPerRequest", batch);
        myConfigurations.set("LogLevel", 0);
        restartConfigured();
        session().respondWith(
            [this](const auto& sent) {
                if (isAway) {
                    return FakeUrlSession::failure(UrlErrorCode::cannotConnectToHost, "away");
                }
                const MutexLock lock(mutex_);
                arrivals_.merge(processesIn(sent.body));
                return FakeUrlSession::Answer();
            },
            false);
        EXPECT_TRUE(AgentServiceHandler::initializeService());
    }
    ~LongRun() {
        AgentServiceHandler::stop();
        service_.join();
        // A synchronisation in progress ends only when it is answered.
        session().respondWith([](const auto&) { return FakeUrlSession::Answer(); });
    }
    LongRun(const LongRun&) = delete;
    LongRun& operator=(const LongRun&) = delete;

    void start() {
        service_ = std::thread([] { AgentServiceHandler::start(); });
    }
    // Events in memory are sent when they are announced, after ten seconds.
    void expectEachOnce(std::int64_t first, std::size_t events) {
        EXPECT_TRUE(eventually([&] {
            clock().advance(10s);
            return arrivals().size() >= events;
        }));
        EXPECT_EQ(arrivals(), eachOnce(first, static_cast<std::int64_t>(events)));
    }
    Processes arrivals() EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        return arrivals_;
    }

    std::atomic<bool> isAway = false;

  private:
    Mutex mutex_;
    Processes arrivals_ GUARDED_BY(mutex_);
    std::thread service_;
};

class LongRunTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (::getuid() != 0) {
            GTEST_SKIP() << "the service starts as root only; run the tests as root";
        }
    }
};

TEST_F(LongRunTest, EightHoursLoseNoEventAndAccumulateNothing) {
    constexpr int kMinutes = 8 * 60;
    constexpr std::uint32_t kRecordsAMinute = 20;
    LongRun agent(true, 50);
    agent.volume().addDomainUser("bruno", 4001, "S-1-5-21-1-2-3-1104", "CORP");
    agent.start();
    const FileDescriptor pipe(::open(agent.volume().auditPipe().c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_TRUE(testing::eventually(
        [] { return AgentServiceHandler::getOperationStatusOnMainQueue("EventCollectorRealtime"); }));

    std::uint32_t process = 1;
    std::optional<Footprint> afterAnHour;
    for (int minute = 1; minute <= kMinutes; ++minute) {
        agent.clock().advance(1min);
        const auto now = std::chrono::seconds(agent.clock().epochSeconds());
        const auto bytes = sudoTrail(now - std::chrono::seconds(kRecordsAMinute - 1), process, kRecordsAMinute).bytes();
        process += kRecordsAMinute;
        ASSERT_EQ(::write(pipe.get(), bytes.data(), bytes.size()), std::ssize(bytes));
        ASSERT_TRUE(testing::eventually([now] {
            return EventCollector::LastTimeStamp() == static_cast<std::uint64_t>(now.count());
        })) << minute;
        if (minute == 60) {
            afterAnHour.emplace();
        }
    }
    agent.expectEachOnce(1, kMinutes * kRecordsAMinute);
    EXPECT_EQ(agent.logged("WriteToProplist:failed"), 0);
    EXPECT_TRUE(std::filesystem::is_empty(agent.volume().eventData()));
    // The number of threads and descriptors depends on the tasks of the moment.
    EXPECT_TRUE(testing::eventually([&] {
        const Footprint atTheEnd;
        return atTheEnd.descriptors <= afterAnHour->descriptors && atTheEnd.threads <= afterAnHour->threads;
    }));
    EXPECT_LT(Footprint().memory, afterAnHour->memory + kMebibyte);
    std::cout << fmt::format("{} descriptors, {} threads and {} KiB after an hour, {} KiB after eight\n",
                             afterAnHour->descriptors, afterAnHour->threads, afterAnHour->memory / 1024,
                             Footprint().memory / 1024);
}

TEST_F(LongRunTest, BacklogOfADayWithoutAServerIsDeliveredInFileOrder) {
    constexpr int kHours = 24;
    constexpr std::uint32_t kEventsAnHour = 100;
    constexpr std::uint32_t kBatch = 20;
    constexpr std::chrono::seconds kApart = 30s;
    HeavyFiles files;
    LongRun agent(false, kBatch);
    agent.isAway = true;
    agent.start();
    const auto lastPass = [&] {
        const auto tasks = agent.volume().readConfiguration("schedules.plist")["ScheduleTasks"];
        return (*tasks.array()->front().dictionary())["LastScheduleTimeInMillis"].integerValue();
    };
    ASSERT_TRUE(testing::eventually([&] { return lastPass() > 0; }));

    std::uint32_t process = 0;
    std::optional<Footprint> afterAnHour;
    std::size_t most = 0;
    auto& configuration = GlobalVariables::getInstance();
    for (int hour = 1; hour <= kHours; ++hour) {
        const auto first = std::chrono::seconds(agent.clock().epochSeconds() + 60);
        addTrail(agent.volume(), sudoTrail(first, process, kEventsAnHour, kApart));
        process += kEventsAnHour;
        const auto last = static_cast<std::uint64_t>((first + (kEventsAnHour - 1) * kApart).count());
        for (int tick = 0; tick < 360; ++tick) {
            agent.clock().advance(10s);
        }
        // A pass has read the trail, or the size limit has refused it. The check of the size must have seen a full
        // spool before the next trail comes: on a busy machine the check runs late.
        std::size_t spooled = 0;
        ASSERT_TRUE(testing::eventually([&] {
            agent.clock().advance(10s);
            spooled = Footprint::entriesOf(agent.volume().eventData().c_str());
            return configuration.maxEventDataSizeReached() ||
                   (EventCollector::LastTimeStamp() >= last && spooled < kFilesToTheLimit);
        }));
        most = std::max(most, spooled);
        if (hour == 1) {
            afterAnHour.emplace();
        }
    }
    const Footprint afterADay;
    std::cout << fmt::format("{} files; {} KiB after an hour, {} KiB after a day\n", most, afterAnHour->memory / 1024,
                             afterADay.memory / 1024);
    EXPECT_TRUE(configuration.maxEventDataSizeReached());
    EXPECT_GE(most, kFilesToTheLimit);
    // The pass that reaches the limit may have begun just below it.
    EXPECT_LE(most, kFilesToTheLimit + kEventsAnHour / kBatch);
    EXPECT_LT(afterADay.memory, afterAnHour->memory + kMebibyte);

    EXPECT_TRUE(agent.arrivals().empty());
    // The first deliveries were attempted while the server was believed to be reachable.
    const auto before = files.removed().size();
    agent.isAway = false;
    agent.expectEachOnce(0, process);
    // Files are in order within a round. A clock this fast begins new rounds before the last one has ended.
    const auto sent = files.removed();
    EXPECT_GE(sent.size(), kFilesToTheLimit);
    int rounds = 1;
    for (auto i = before + 1; i < sent.size(); ++i) {
        rounds += sent[i] < sent[i - 1] ? 1 : 0;
    }
    EXPECT_LE(rounds, 6) << fmt::format("{}", fmt::join(sent, " "));
    EXPECT_FALSE(configuration.maxEventDataSizeReached());
}

}  // namespace
}  // namespace sentrova::testing
