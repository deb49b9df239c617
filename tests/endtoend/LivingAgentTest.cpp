// A running agent: a server that changes its configuration, a steady stream of records, and stops at any moment.

#include "endtoend/EndToEnd.h"
#include "foundation/files/FileDescriptor.h"
#include "foundation/formats/Json.h"
#include "foundation/run/Clock.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;
using Kind = AuditServer::Failure::Kind;

constexpr const char* kReading = "Eventcollector readEvents called";

class LivingAgentTest : public EndToEnd {
  protected:
    LivingAgentTest() {
        const Dictionary more = {
            {"IsRealTime", true}, {"NumberofEventsPerRequest", 5}, {"FetchInterval", 3600},
            {"SyncTime", 900},    {"EventsToRead", "AUE_sudo"},    {"AgentGuid", "guid"},
            {"DomainID", "1"},    {"AgentUID", "uid-7"},
        };
        for (const auto& [key, value] : more) {
            serverInfo.set(key, value);
        }
        mine.set("LogLevel", 1);
        configure();
        volume.writeConfiguration(
            "schedules.plist",
            {{"ScheduleTasks", Array{taskEntry("EventCollection", "EventCollectionSchedule", "start", 3600),
                                     taskEntry("SyncConfiguration", "ServerCommunicator", "syncFromServer", 5)}}});
        answer();
    }

    void answer() { server.setAnswer(*Json::write(serverInfo)); }

    // Writes one record, with its own process id, each twentieth of a second while it is called.
    void keepWriting() {
        const auto second = epochSeconds(std::chrono::system_clock::now());
        if (std::chrono::steady_clock::now() < nextWrite) {
            return;
        }
        nextWrite = std::chrono::steady_clock::now() + 50ms;
        // An agent that no longer reads must not block the test.
        pollfd writable{pipe.get(), POLLOUT, 0};
        if (::poll(&writable, 1, 0) != 1) {
            return;
        }
        const auto bytes = sudoRecord(std::chrono::seconds(second), ++process).bytes();
        EXPECT_EQ(::write(pipe.get(), bytes.data(), bytes.size()), std::ssize(bytes));
        if (isCollected) {
            written.emplace(process, second);
        }
    }

    // Changes the key at the server. Writes records until all the texts have been added to the agent's log.
    void change(const char* key, const Value& value, const std::vector<std::string>& messages) {
        const auto from = log().size();
        serverInfo.set(key, value);
        answer();
        for (const auto& message : messages) {
            ASSERT_TRUE(waitUntil([&] {
                keepWriting();
                return log().find(message, from) != std::string::npos;
            })) << key
                << ": " << message;
        }
    }

    // The seconds in which a reader was opened, from the log.
    std::set<std::int64_t> openingSeconds() const {
        std::set<std::int64_t> seconds;
        std::istringstream lines(log());
        for (std::string line; std::getline(lines, line);) {
            std::tm time{};
            if (line.find(kReading) != std::string::npos && ::strptime(line.c_str(), "[%Y-%m-%d %H:%M:%S", &time)) {
                seconds.insert(::timegm(&time));
            }
        }
        return seconds;
    }

    const FileDescriptor pipe{::open(volume.auditPipe().c_str(), O_RDWR | O_CLOEXEC)};
    // The second of each record that must arrive, by process id.
    std::map<std::int64_t, std::int64_t> written;
    bool isCollected = true;
    std::uint32_t process = 20000;
    Clock::Monotonic nextWrite;
};

TEST_F(LivingAgentTest, EveryChangeOfTheServerIsAppliedAndEveryRecordArrivesOnce) {
    RunningAgent agent(build::kAgent, volume);
    ASSERT_TRUE(waitForLog(volume, "Config", kReading));

    change("EventsToRead", "AUE_sudo,AUE_ssh",
           {"Events to be audited are changed to AUE_sudo,AUE_ssh", "reinitiatizing real time collection",
            "EventCollectorRealtime has been cancelled", kReading});
    isCollected = false;
    change("isEnabled", false, {"State Changed to disabled", "EventCollectorRealtime has been cancelled"});
    change("isEnabled", true, {"State Changed to enabled", kReading});
    isCollected = true;
    change("NATServerName", "localhost", {"GlobalVariables next url"});
    change("EventsToRead", "AUE_sudo", {"Events to be audited are changed to AUE_sudo\r\n", kReading});
    change("NATServerName", "-", {"GlobalVariables next url"});
    isCollected = false;
    change("IsRealTime", false, {"Realtime disabled stopping listening", "EventCollectorRealtime has been cancelled"});
    change("IsRealTime", true,
           {"Realtime enabled starting listening", "EventCollection schedule has been stopped", kReading});
    isCollected = true;
    change("AgentAuthID", "identity-of-the-agent", {"GlobalVariables going to sync data from server"});
    const auto from = server.requests().size();
    ASSERT_TRUE(waitUntil([&] {
        keepWriting();
        return server.requests().size() >= from + 2;
    }));
    EXPECT_TRUE(waitUntil([&] { return processesIn(server.events()).contains(process); }));
    EXPECT_EQ(agent.stop(1s), 0);

    const auto arrived = processesIn(server.events());
    EXPECT_EQ(std::ranges::adjacent_find(arrived), arrived.end()) << "a record arrived twice";
    // A newly opened reader skips records of the second that was read last. Only those may be missing.
    const auto openings = openingSeconds();
    int dropped = 0;
    for (const auto& [number, second] : written) {
        if (!arrived.contains(number)) {
            ++dropped;
            EXPECT_TRUE(openings.contains(second) || openings.contains(second + 1))
                << number << " of " << second << " is lost";
        }
    }
    fmt::print("{} records written while collected, {} dropped by the time rule at {} openings\n", written.size(),
               dropped, openings.size());
    EXPECT_GT(written.size(), 200U);
    // Two readers replaced a reader during reading, each within a second.
    EXPECT_LT(dropped, 60);
}

TEST_F(LivingAgentTest, BurstLargerThanThePipesQueueArrivesWhole) {
    serverInfo.set("NumberofEventsPerRequest", 500);
    answer();
    RunningAgent agent(build::kAgent, volume);
    ASSERT_TRUE(waitForLog(volume, "Config", kReading));
    constexpr std::uint32_t kRecords = 20'000;
    const auto bytes =
        sudoTrail(std::chrono::seconds(epochSeconds(std::chrono::system_clock::now())), 0, kRecords, 0s).bytes();
    ASSERT_EQ(::write(pipe.get(), bytes.data(), bytes.size()), std::ssize(bytes));
    // The last batch is in memory and follows ten seconds later.
    ASSERT_TRUE(server.waitForEvents(kRecords));
    EXPECT_EQ(processesIn(server.events()), eachOnce(0, kRecords));
    EXPECT_EQ(agent.stop(1s), 0);
}

TEST_F(LivingAgentTest, TerminationEndsTheProcessWithinASecondAtEveryStage) {
    const std::tuple<const char*, std::function<void()>, std::function<bool()>> stages[] = {
        {"waiting for the first sync", [&] { server.fail({.kind = Kind::noAnswer}); },
         [&] { return server.waitForRequests(1); }},
        {"pausing after twelve failures", [&] { server.fail({.count = -1}); },
         [&] { return waitForLog(volume, "Config", "Sleeping for 900 seconds"); }},
        {"blocked on the pipe", [] {}, [&] { return waitForLog(volume, "Config", kReading); }},
        {"reading a large trail", [&] { addTrail(volume, sudoTrail(1'700'000'000s, 0, 300'000)); },
         [&] { return waitForLog(volume, "Config", " filename "); }},
        {"in the middle of a delivery",
         [&] { server.fail({.kind = Kind::noAnswer, .path = AuditServer::kEventsPath, .count = -1}); },
         [&] { return server.waitForRequests(2); }},
    };
    for (const auto& [name, prepare, isReached] : stages) {
        SCOPED_TRACE(name);
        server.reset();
        answer();
        prepare();
        removeLogs();
        RunningAgent agent(build::kAgent, volume);
        ASSERT_TRUE(isReached());
        EXPECT_EQ(agent.stop(1s), 0);
        EXPECT_NE(log().find("AgentServiceHandler stop called"), std::string::npos);
    }
}

}  // namespace
}  // namespace sentrova::testing
