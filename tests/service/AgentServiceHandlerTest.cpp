#include "collection/EventCollectionSchedule.h"
#include "forwarding/EventQueueGCD.h"
#include "foundation/run/NotificationCenter.h"
#include "service/AgentLock.h"
#include "service/AgentServiceHandler.h"
#include "support/AgentFixture.h"
#include "support/FaultyFileSystem.h"
#include "sync/ServerCommunicator.h"
#include "volume/TrailWriter.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <future>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sentrova::testing {

namespace fs = std::filesystem;

class AgentServiceHandlerTest : public ::testing::Test, protected AgentFixture {};

TEST_F(AgentServiceHandlerTest, StopAtAnyMomentOfTheStartTakesEffect) {
    bool isStarted = false;
    for (int moment = 0; !isStarted; ++moment) {
        SCOPED_TRACE(moment);
        fs::remove(volume().logs() / "Config2026-11-15.log");
        EventQueueGCD::init();
        // A moment is a file system call of the starting thread, including those for the log.
        std::atomic<std::thread::id> starter;
        std::future<void> stop;
        int calls = 0;
        const FaultyFileSystem files([&](const std::string& path) {
            if (std::this_thread::get_id() == starter.load() && ++calls == moment) {
                stop = std::async(std::launch::async, AgentServiceHandler::stop);
                // While this thread appends a line, other lines wait, also those of the stop. Waiting for the stop here
                // would block.
                if (!path.starts_with("../logs")) {
                    stop.get();
                }
            }
            return false;
        });
        if (moment == 0) {
            PropertyListHandler old;
            old.updateDictionary({{"AgentGuid", "guid"}});
            Dictionary answer = {{"AgentGuid", "guid"}};
            ServerCommunicator::ConfigurationChangesCheckWithOldData(old, answer);
            EXPECT_FALSE(volume().readConfiguration("Serverinfo.plist").contains("DomainName"));
        }
        auto service = std::async(std::launch::async, [&] {
            starter = std::this_thread::get_id();
            AgentServiceHandler::start();
        });
        EXPECT_TRUE(eventually([&] {
            isStarted = logged("EventCollectorRealtime has been added") > 0 && logged("stop called") == 0;
            return isStarted || service.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        }));
        AgentServiceHandler::stop();
        service.get();
        EXPECT_TRUE(moment > 0 || logged("The agent was stopped before its start") == 1);
        restart();
    }
}

TEST_F(AgentServiceHandlerTest, LiveRecordsAreCollectedAfterTheFirstPassAndTheStartRotatesTheLogs) {
    serverInfo.set("IsRealTime", true);
    serverInfo.set("NumberofEventsPerRequest", 1);
    restartConfigured();
    const auto record = TrailRecord(6152).at(std::chrono::seconds(1000)).returns(0);
    volume().addTrail("trail", TrailWriter().add(record).add(record).bytes(), std::chrono::seconds(3000));
    EventQueueGCD::init();
    std::atomic<bool> isPassing = false;
    // Posted during the pass, when the second event comes.
    const auto observer =
        NotificationCenter::defaultCenter().addObserver(EventQueueGCD::kEventFileNotification, [&](const auto&) {
            EXPECT_TRUE(eventually([this] { return logged("EventCollectorRealtime has been added") > 0; }));
            // Passes that are added later, and refused while this one executes: the queue has threads.
            for (int i = 0; i < 5; ++i) {
                const auto later = std::make_shared<EventCollectionSchedule>();
                later->setName(fmt::format("pass {}", i));
                AgentServiceHandler::addOperationToMainQueue(later);
                EXPECT_TRUE(eventually([&] { return later->isFinished(); }));
            }
            EXPECT_EQ(logged("EventCollectorRealtime start called"), 0);
            isPassing = true;
        });
    auto service = std::async(std::launch::async, AgentServiceHandler::start);
    EXPECT_TRUE(eventually([&] { return isPassing.load(); }));
    EXPECT_TRUE(eventually([this] { return logged("EventCollectorRealtime start called") == 1; }));
    EXPECT_EQ(logged("]Going to rotate log\r\n") + logged("]Zipping Log\r\n"), 2);
    AgentServiceHandler::stop();
    service.get();
}

TEST_F(AgentServiceHandlerTest, DiscardedEventsAreCountedEvenWhileTheSpoolIsBlocked) {
    EventQueueGCD::init();
    // The fourth event writes the first three to a file. The announcement of the file blocks the spool's queue.
    const auto observer = NotificationCenter::defaultCenter().addObserver(
        EventQueueGCD::kEventFileNotification,
        [](const auto&) { std::async(std::launch::async, AgentServiceHandler::end).get(); });
    for (int i = 0; i < 5; ++i) {
        EventQueueGCD::enqueue({{"n", i}});
    }
    AgentServiceHandler::end();
    EXPECT_EQ(logged("events in memory"), 1);
    EXPECT_EQ(logged("[ERROR]2 events in memory were not delivered"), 1);
}

TEST_F(AgentServiceHandlerTest, SecondAgentIsKeptOutWhileTheFirstOneLives) {
    const auto path = volume().conf() / "agent.lock";
    for (int start = 0; start < 2; ++start) {
        const AgentLock first(host().files);
        EXPECT_THROW(AgentLock(host().files), AlreadyRunningError);
        std::string content;
        std::getline(std::ifstream(path), content);
        EXPECT_EQ(content, std::to_string(::getpid()));
    }
    EXPECT_EQ(logged(fmt::format("[ERROR]Another agent, process {}, holds ../conf/agent.lock", ::getpid())), 2);
    // If locking is impossible, the agent runs without the lock.
    fs::rename(path, volume().conf() / "other");
    const std::function<void()> obstacles[] = {
        [&] { fs::create_symlink("other", path); },
        [&] { EXPECT_EQ(::mkfifo(path.c_str(), S_IRWXU), 0); },
        [&] { fs::remove_all(volume().conf()); },
    };
    for (const auto& obstruct : obstacles) {
        fs::remove(path);
        obstruct();
        EXPECT_NO_THROW(AgentLock(host().files));
    }
    EXPECT_EQ(logged("[ERROR]The agent runs without its lock"), 3);
}

}  // namespace sentrova::testing
