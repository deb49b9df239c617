// The agent as it lives: a server that changes its mind, records that keep coming, and stops at any moment.

#include "BuildPaths.h"
#include "foundation/Clock.h"
#include "foundation/FileDescriptor.h"
#include "foundation/Json.h"
#include "support/AuditServer.h"
#include "support/RunningAgent.h"
#include "support/SystemVolume.h"
#include "support/TrailWriter.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;
using Kind = AuditServer::Failure::Kind;

// Writes a sudo record with a process number of its own to the pipe every so often, and keeps account of them.
class PipeWriter {
  public:
    struct Written {
        std::int64_t process;
        std::int64_t second;
    };

    explicit PipeWriter(const SystemVolume& volume)
        : pipe_(::open(volume.auditPipe().c_str(), O_RDWR | O_CLOEXEC)), thread_([this] { write(); }) {}
    ~PipeWriter() { end(); }
    PipeWriter(const PipeWriter&) = delete;
    PipeWriter& operator=(const PipeWriter&) = delete;

    // Whether the records from now on must arrive.
    void expect(bool expected) {
        const std::lock_guard lock(mutex_);
        expected_ = expected;
    }

    // All records that must arrive; writes no more.
    std::vector<Written> end() {
        ended_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
        const std::lock_guard lock(mutex_);
        return written_;
    }

  private:
    void write() {
        for (std::uint32_t process = 20000; !ended_; ++process) {
            const auto second = Clock::shared().epochSeconds();
            const auto bytes = TrailRecord(45028)
                                   .at(std::chrono::seconds(second))
                                   .subject({.auditId = 4001, .processId = process})
                                   .returns(0)
                                   .bytes();
            {
                const std::lock_guard lock(mutex_);
                if (expected_) {
                    written_.push_back({process, second});
                }
                EXPECT_EQ(::write(pipe_.get(), bytes.data(), bytes.size()), std::ssize(bytes));
            }
            // The pace of the records; nothing is waited for.
            Clock::shared().sleepFor(50ms);
        }
    }

    const FileDescriptor pipe_;
    std::mutex mutex_;
    std::vector<Written> written_;
    bool expected_ = true;
    std::atomic<bool> ended_ = false;
    std::thread thread_;
};

class LivingAgentTest : public ::testing::Test {
  protected:
    LivingAgentTest() {
        configuration = loopbackConfiguration(server.port());
        const Dictionary more = {
            {"IsRealTime", true}, {"NumberofEventsPerRequest", 5}, {"FetchInterval", 3600},
            {"SyncTime", 900},    {"EventsToRead", "AUE_sudo"},    {"AgentGuid", "guid"},
            {"DomainID", "1"},    {"AgentUID", "uid-7"},
        };
        for (const auto& [key, value] : more) {
            configuration.set(key, value);
        }
        volume.writeConfiguration("Serverinfo.plist", configuration);
        volume.writeConfiguration(
            "myconfigurations.plist",
            {{"TimestampOfLastEvent", "0"}, {"LogLevel", 1}, {"AgentVersion", "1.0"}, {"CommunicationType", 1}});
        setSyncInterval(5);
        answer();
    }

    void setSyncInterval(int seconds) {
        const auto task = [](const char* name, const char* className, const char* selector, int interval) {
            return Dictionary{{"TaskName", name},       {"IntervalSeconds", interval}, {"Repeat", true},
                              {"TaskStatus", "Enable"}, {"className", className},      {"selector", selector}};
        };
        volume.writeConfiguration(
            "schedules.plist",
            {{"ScheduleTasks", Array{task("EventCollection", "EventCollectionSchedule", "start", 3600),
                                     task("SyncConfiguration", "ServerCommunicator", "syncFromServer", seconds)}}});
    }

    void answer() { server.setAnswer(*Json::write(configuration)); }

    // Sets the key at the server and waits until the agent's log has all the texts, after what it has now.
    void change(const char* key, const Value& value, const std::vector<std::string>& messages) {
        const auto from = logOf(volume, "Config").size();
        configuration.set(key, value);
        answer();
        for (const auto& message : messages) {
            ASSERT_TRUE(waitUntil([&] { return logOf(volume, "Config").find(message, from) != std::string::npos; }))
                << key << ": " << message;
        }
    }

    std::map<std::int64_t, int> arrivals() const {
        std::map<std::int64_t, int> counts;
        for (const auto& text : server.events()) {
            ++counts[(*Json::parse(text)->dictionary())["subject_pid"].integerValue()];
        }
        return counts;
    }

    // The seconds in which a reader was opened, by the log.
    std::set<std::int64_t> openingSeconds() const {
        std::set<std::int64_t> seconds;
        const auto log = logOf(volume, "Config");
        constexpr std::string_view kMark = "Eventcollector readEvents called";
        for (auto at = log.find(kMark); at != std::string::npos; at = log.find(kMark, at + 1)) {
            const auto line = log.rfind('\n', at) == std::string::npos ? 0 : log.rfind('\n', at) + 1;
            std::tm time{};
            ::strptime(log.substr(line + 1, 19).c_str(), "%Y-%m-%d %H:%M:%S", &time);
            seconds.insert(::timegm(&time));
        }
        return seconds;
    }

    AuditServer server;
    SystemVolume volume;
    Dictionary configuration;
};

TEST_F(LivingAgentTest, EveryChangeOfTheServerIsAppliedAndEveryRecordArrivesOnce) {
    RunningAgent agent(build::kAgent, volume);
    ASSERT_TRUE(waitForLog(volume, "Config", "Eventcollector readEvents called"));
    PipeWriter writer(volume);

    change("EventsToRead", "AUE_sudo,AUE_ssh",
           {"Events to be audited are changed to AUE_sudo,AUE_ssh", "reinitiatizing real time collection",
            "EventCollectorRealtime has been cancelled", "Eventcollector readEvents called"});
    change("FetchInterval", 1800, {"Fetch interval has been changed updating schedule to 1800"});
    writer.expect(false);
    change("isEnabled", false, {"State Changed to disabled", "EventCollectorRealtime has been cancelled"});
    change("isEnabled", true, {"State Changed to enabled", "Eventcollector readEvents called"});
    writer.expect(true);
    change("NATServerName", "localhost", {"GlobalVariables next url"});
    change("SyncTime", 5, {"SyncTime has been updated to 5"});
    change("EventsToRead", "AUE_sudo",
           {"Events to be audited are changed to AUE_sudo\r\n", "Eventcollector readEvents called"});
    change("NATServerName", "-", {"GlobalVariables next url"});
    writer.expect(false);
    change("IsRealTime", false, {"Realtime disabled stopping listening", "EventCollectorRealtime has been cancelled"});
    change("IsRealTime", true,
           {"Realtime enabled starting listening", "EventCollection schedule has been stopped",
            "Eventcollector readEvents called"});
    writer.expect(true);
    change("AgentAuthID", "identity-of-the-agent", {"GlobalVariables going to sync data from server"});
    const auto from = server.requests().size();
    ASSERT_TRUE(server.waitForRequests(from + 2));

    const auto written = writer.end();
    EXPECT_TRUE(waitUntil([&] { return arrivals().contains(written.back().process); }));
    EXPECT_EQ(agent.stop(1s), 0);

    const auto counts = arrivals();
    for (const auto& [process, count] : counts) {
        EXPECT_EQ(count, 1) << process;
    }
    // A reader that is opened takes no record of the second that was read last: those, and only those, may be missing.
    const auto openings = openingSeconds();
    int dropped = 0;
    for (const auto& record : written) {
        if (!counts.contains(record.process)) {
            ++dropped;
            EXPECT_TRUE(openings.contains(record.second) || openings.contains(record.second + 1))
                << record.process << " of " << record.second << " is lost";
        }
    }
    fmt::print("{} records written while collected, {} dropped by the time rule at {} openings\n", written.size(),
               dropped, openings.size());
    EXPECT_GT(written.size(), 200U);
    // Two readers took over from one that was reading, each within a second.
    EXPECT_LT(dropped, 60);
}

TEST_F(LivingAgentTest, BurstLargerThanThePipesQueueArrivesWhole) {
    configuration.set("NumberofEventsPerRequest", 500);
    answer();
    RunningAgent agent(build::kAgent, volume);
    ASSERT_TRUE(waitForLog(volume, "Config", "Eventcollector readEvents called"));
    constexpr std::uint32_t kRecords = 20'000;
    const FileDescriptor pipe(::open(volume.auditPipe().c_str(), O_RDWR | O_CLOEXEC));
    const auto now = std::chrono::seconds(Clock::shared().epochSeconds());
    for (std::uint32_t i = 0; i < kRecords; ++i) {
        const auto bytes = TrailRecord(45028).at(now).subject({.processId = i}).returns(0).bytes();
        ASSERT_EQ(::write(pipe.get(), bytes.data(), bytes.size()), std::ssize(bytes));
    }
    // The last batch, in memory, follows ten seconds later.
    ASSERT_TRUE(server.waitForEvents(kRecords));
    const auto counts = arrivals();
    EXPECT_EQ(counts.size(), kRecords);
    EXPECT_EQ(server.events().size(), kRecords);
    EXPECT_EQ(agent.stop(1s), 0);
}

TEST_F(LivingAgentTest, IdentityIsStoredEncryptedAndSentAtTheNextStart) {
    configuration.set("AgentAuthID", "identity-of-the-agent");
    answer();
    {
        RunningAgent agent(build::kAgent, volume);
        ASSERT_TRUE(waitForLog(volume, "Communication", "response="));
        ASSERT_TRUE(waitForLog(volume, "Config", "Going to Start Vantorix Sentrova Agent."));
        ASSERT_TRUE(
            waitUntil([&] { return volume.readConfiguration("myconfigurations.plist").contains("AgentAuthID"); }));
        EXPECT_EQ(agent.stop(), 0);
    }
    const auto stored = volume.readConfiguration("myconfigurations.plist")["AgentAuthID"].description();
    // 32 characters, then 32 bytes of cipher text in base64.
    EXPECT_EQ(stored.size(), 32U + 44U);
    EXPECT_EQ(stored.find("identity"), std::string::npos);
    EXPECT_EQ(server.requests().front().body.find("AgentAuthID"), std::string::npos);

    const auto before = server.requests().size();
    RunningAgent again(build::kAgent, volume);
    ASSERT_TRUE(server.waitForRequests(before + 1));
    EXPECT_NE(server.requests()[before].body.find("\"AgentAuthID\":\"identity-of-the-agent\""), std::string::npos);
    EXPECT_EQ(again.stop(), 0);
    EXPECT_EQ(logOf(volume, "Config").find("identity-of-the-agent"), std::string::npos);
    EXPECT_EQ(logOf(volume, "Communication").find("identity-of-the-agent"), std::string::npos);
}

TEST_F(LivingAgentTest, RemovalAtTheServerClearsTheKeysAndEndsTheProcess) {
    RunningAgent agent(build::kAgent, volume);
    ASSERT_TRUE(waitForLog(volume, "Config", "Eventcollector readEvents called"));
    configuration.remove("DomainID");
    answer();
    EXPECT_EQ(agent.wait(), 0);
    EXPECT_NE(logOf(volume, "Config").find("Agent Deleted/Unconfigured"), std::string::npos);
    const auto stored = volume.readConfiguration("Serverinfo.plist");
    EXPECT_FALSE(stored.contains("AgentGuid"));
    EXPECT_FALSE(stored.contains("DomainName"));
    EXPECT_EQ(stored["EventsToRead"], Value("AUE_sudo"));
}

TEST_F(LivingAgentTest, TerminationEndsTheProcessWithinASecondAtEveryStage) {
    struct Stage {
        const char* name;
        std::function<void()> prepare;
        std::function<bool()> reached;
    };
    TrailWriter large;
    for (std::uint32_t i = 0; i < 300'000; ++i) {
        large.add(TrailRecord(45028).at(1'700'000'000s + std::chrono::seconds(i)).subject({.processId = i}).returns(0));
    }
    const std::vector<Stage> stages = {
        {"waiting for the first sync", [&] { server.fail({.kind = Kind::noAnswer}); },
         [&] { return server.waitForRequests(1); }},
        {"pausing after twelve failures", [&] { server.fail({.count = -1}); },
         [&] { return waitForLog(volume, "Config", "Sleeping for 900 seconds"); }},
        {"blocked on the pipe", [] {},
         [&] { return waitForLog(volume, "Config", "Eventcollector readEvents called"); }},
        {"reading a large trail", [&] { volume.addTrail("1", large.bytes(), large.lastTime()); },
         [&] { return waitForLog(volume, "Config", " filename "); }},
        {"in the middle of a delivery",
         [&] { server.fail({.kind = Kind::noAnswer, .path = AuditServer::kEventsPath, .count = -1}); },
         [&] { return server.waitForRequests(2); }},
    };
    for (const auto& stage : stages) {
        server.reset();
        answer();
        stage.prepare();
        std::filesystem::remove_all(volume.logs());
        std::filesystem::create_directories(volume.logs() / "archive");
        RunningAgent agent(build::kAgent, volume);
        ASSERT_TRUE(stage.reached()) << stage.name;
        EXPECT_EQ(agent.stop(1s), 0) << stage.name;
        EXPECT_NE(logOf(volume, "Config").find("AgentServiceHandler stop called"), std::string::npos) << stage.name;
    }
}

}  // namespace
}  // namespace sentrova::testing
