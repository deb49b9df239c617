// The server away for a day under a steady stream of events, by a clock that is moved by hand.

#include "core/AgentServiceHandler.h"
#include "core/GlobalVariables.h"
#include "foundation/FileSystem.h"
#include "foundation/Mutex.h"
#include "support/AgentFixture.h"
#include "support/CountingSession.h"
#include "support/Footprint.h"
#include "support/TrailWriter.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;

constexpr int kHours = 24;
constexpr std::uint32_t kEventsAnHour = 100;
constexpr std::uint32_t kBatch = 20;
// The limit is a gigabyte: so many files reach it.
constexpr std::size_t kFilesToTheLimit = 80;

// Files of the spool that count for more than they are, and the order in which they are let go.
class HeavyFiles final : public FileSystem {
  public:
    HeavyFiles() { install(this); }
    ~HeavyFiles() override { install(nullptr); }

    Result<FileStatus> linkStatus(const std::string& path) override {
        auto status = FileSystem::linkStatus(path);
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
        return FileSystem::hostRemove(at);
    }
    std::vector<std::string> removed() {
        const MutexLock lock(mutex_);
        return removed_;
    }

  private:
    Mutex mutex_;
    std::vector<std::string> removed_ GUARDED_BY(mutex_);
};

TEST(ServerAwayTest, DayWithoutAServerIsMadeUpForInTheOrderOfTheFiles) {
    if (::getuid() != 0) {
        GTEST_SKIP() << "the agent runs as root only";
    }
    HeavyFiles files;
    AgentFixture agent;
    agent.serverInfo.set("NumberofEventsPerRequest", kBatch);
    agent.myConfigurations.set("LogLevel", 0);
    agent.writeConfiguration();
    const auto account = CountingSession::install();
    ASSERT_TRUE(AgentServiceHandler::initializeService());
    account->setAway(true);
    std::thread service([] { AgentServiceHandler::start(); });
    const auto spooled = [&] { return Footprint::entriesOf(agent.volume().eventData().c_str()); };
    const auto taskRuns = [&](std::size_t task) {
        return (*agent.volume()
                     .readConfiguration("schedules.plist")["ScheduleTasks"]
                     .array()
                     ->at(task)
                     .dictionary())["LastScheduleTimeInMillis"]
            .integerValue();
    };
    ASSERT_TRUE(AgentFixture::eventually([&] { return taskRuns(0) > 0; }));

    std::uint32_t process = 0;
    std::optional<Footprint> afterAnHour;
    std::size_t most = 0;
    for (int hour = 1; hour <= kHours; ++hour) {
        TrailWriter trail;
        const auto begin = agent.clock().epochSeconds();
        for (std::uint32_t i = 0; i < kEventsAnHour; ++i) {
            trail.add(TrailRecord(45028)
                          .at(std::chrono::seconds(begin + 60 + 30 * i))
                          .subject({.auditId = 4001, .processId = ++process})
                          .returns(0));
        }
        agent.volume().addTrail(fmt::format("{}", begin), trail.bytes(), trail.lastTime());
        const auto formerly = taskRuns(0);
        for (int tick = 0; tick < 360; ++tick) {
            agent.clock().advance(10s);
        }
        // The pass of this hour has read the trail, or was refused by the size guard.
        ASSERT_TRUE(AgentFixture::eventually([&] {
            agent.clock().advance(10s);
            return taskRuns(0) > formerly || GlobalVariables::getInstance().maxEventDataSizeReached();
        }));
        most = std::max(most, spooled());
        if (hour == 1) {
            afterAnHour.emplace();
        }
    }
    const Footprint afterADay;
    std::cout << fmt::format("{} files; {} KiB after an hour, {} KiB after a day\n", most, afterAnHour->memory / 1024,
                             afterADay.memory / 1024);
    EXPECT_TRUE(GlobalVariables::getInstance().maxEventDataSizeReached());
    EXPECT_GE(most, kFilesToTheLimit);
    // One pass may begin just below the limit.
    EXPECT_LE(most, kFilesToTheLimit + kEventsAnHour / kBatch);
    EXPECT_LT(afterADay.memory, afterAnHour->memory + 1024 * 1024);

    EXPECT_EQ(account->different(), 0U);
    // The first deliveries were attempted while the server counted as reachable.
    const auto before = files.removed().size();
    account->setAway(false);
    EXPECT_TRUE(AgentFixture::eventually([&] {
        agent.clock().advance(10s);
        return account->different() == process;
    })) << account->different();
    for (const auto& [number, count] : account->arrivals()) {
        ASSERT_EQ(count, 1) << number;
    }
    // In order within a round; a clock as fast as this one begins new rounds before the last one is over.
    const auto sent = files.removed();
    EXPECT_GE(sent.size(), kFilesToTheLimit);
    int rounds = 1;
    for (auto i = before + 1; i < sent.size(); ++i) {
        rounds += sent[i] < sent[i - 1] ? 1 : 0;
    }
    EXPECT_LE(rounds, 6) << fmt::format("{}", fmt::join(sent, " "));
    EXPECT_FALSE(GlobalVariables::getInstance().maxEventDataSizeReached());

    AgentServiceHandler::stop();
    service.join();
}

}  // namespace
}  // namespace sentrova::testing
