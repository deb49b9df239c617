// Eight hours of the agent's life, by a clock that is moved by hand.

#include "collection/EventCollector.h"
#include "core/AgentServiceHandler.h"
#include "foundation/FileDescriptor.h"
#include "support/AgentFixture.h"
#include "support/CountingSession.h"
#include "support/Footprint.h"
#include "support/TrailRecord.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t kMebibyte = 1024 * 1024;

TEST(EightHoursTest, NothingIsLostAndNothingPilesUp) {
    if (::getuid() != 0) {
        GTEST_SKIP() << "the agent runs as root only";
    }
    constexpr int kMinutes = 8 * 60;
    constexpr std::uint32_t kRecordsAMinute = 20;

    AgentFixture agent;
    agent.serverInfo.set("IsRealTime", true);
    agent.serverInfo.set("NumberofEventsPerRequest", 50);
    agent.myConfigurations.set("LogLevel", 0);
    agent.writeConfiguration();
    agent.volume().addDomainUser("bruno", 700001, "S-1-5-21-1-2-3-1104", "CORP");
    const auto account = CountingSession::install();

    ASSERT_TRUE(AgentServiceHandler::initializeService());
    std::thread service([] { AgentServiceHandler::start(); });
    const FileDescriptor pipe(::open(agent.volume().auditPipe().c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_TRUE(AgentFixture::eventually(
        [] { return AgentServiceHandler::getOperationStatusOnMainQueue("EventCollectorRealtime"); }));

    std::uint32_t process = 1;
    std::optional<Footprint> afterAnHour;
    for (int minute = 1; minute <= kMinutes; ++minute) {
        agent.clock().advance(1min);
        const auto now = agent.clock().epochSeconds();
        for (std::uint32_t i = 0; i < kRecordsAMinute; ++i) {
            const Subject bruno = {700001, 700001, 20, 700001, 20, process++, 100012, 0, "0.0.0.0"};
            const auto bytes = TrailRecord(45028)
                                   .at(std::chrono::seconds(now - kRecordsAMinute + 1 + i))
                                   .subject(bruno)
                                   .returns(0)
                                   .bytes();
            ASSERT_EQ(::write(pipe.get(), bytes.data(), bytes.size()), std::ssize(bytes));
        }
        ASSERT_TRUE(AgentFixture::eventually([now] {
            return EventCollector::LastTimeStamp() == static_cast<std::uint64_t>(now);
        })) << minute;
        if (minute == 60) {
            afterAnHour.emplace();
        }
    }
    // What is in memory goes out with its announcement.
    EXPECT_TRUE(AgentFixture::eventually([&] {
        agent.clock().advance(10s);
        return account->different() == kMinutes * kRecordsAMinute;
    }));
    for (const auto& [number, count] : account->arrivals()) {
        ASSERT_EQ(count, 1) << number;
    }
    EXPECT_EQ(agent.logged("WriteToProplist:failed"), 0);
    EXPECT_TRUE(std::filesystem::is_empty(agent.volume().eventData()));
    // Threads and descriptors come and go with the tasks of the moment.
    EXPECT_TRUE(AgentFixture::eventually([&] {
        const Footprint atTheEnd;
        return atTheEnd.descriptors <= afterAnHour->descriptors && atTheEnd.threads <= afterAnHour->threads;
    }));
    EXPECT_LT(Footprint().memory, afterAnHour->memory + kMebibyte);
    std::cout << afterAnHour->descriptors << " descriptors, " << afterAnHour->threads << " threads and "
              << afterAnHour->memory / 1024 << " KiB after an hour, " << Footprint().memory / 1024
              << " KiB after eight\n";

    AgentServiceHandler::stop();
    service.join();
}

}  // namespace
}  // namespace sentrova::testing
