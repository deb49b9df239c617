// The command `replay` of sentrovactl, between runs of the agent's own program.

#include "endtoend/EndToEnd.h"
#include "foundation/files/FileDescriptor.h"
#include "support/ControlProgram.h"

#include <fcntl.h>
#include <unistd.h>

#include <map>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr auto kBegin = 1'700'000'000s;

class ReplayTest : public EndToEnd {
  protected:
    ReplayTest() {
        serverInfo.set("NumberofEventsPerRequest", 1);
        mine.set("LogLevel", 0);
    }

    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "only root may replay";
        }
    }

    // Records a second apart, whose process ids are their seconds since kBegin: trails of which one begins in the
    // second after the other's end, and one in which nothing is new although it was changed late.
    void addDay() {
        addTrail(volume, sudoTrail(kBegin, 0, 10));
        addTrail(volume, sudoTrail(kBegin + 10s, 10, 10));
        volume.addTrail("touched", TrailWriter().add(TrailRecord(6152).at(kBegin + 15s)).bytes(), kBegin + 21s);
        volume.addTrail("open.not_terminated", sudoTrail(kBegin + 22s, 22, 6).bytes(), kBegin + 27s);
        volume.linkCurrentTrail("open.not_terminated");
    }

    Processes arrived() const { return processesIn(server.events()); }
    void runUntilArrived(std::size_t events) {
        RunningAgent agent(build::kAgent, volume);
        EXPECT_TRUE(waitUntil([&] { return arrived().size() >= events; })) << arrived().size() << log();
        EXPECT_EQ(agent.stop(), 0);
    }

    ControlOutcome replay(std::chrono::seconds since, std::vector<std::string> more = {"--yes"}) {
        more.insert(more.begin(), {"--root", volume.agent(), "replay", "--since", std::to_string(since.count())});
        return runControl(more, {}, {"SENTROVA_SYSTEM_VOLUME=" + volume.volume().string(), "TZ=UTC"});
    }
    void expectDone(std::chrono::seconds since, const std::string& counts) {
        const auto outcome = replay(since);
        EXPECT_EQ(outcome.status, 0) << outcome.problems;
        EXPECT_TRUE(outcome.output.starts_with(counts)) << outcome.output;
    }
    // Runs the agent, and compares what arrives with what had arrived before.
    void expectAgain(Processes again) {
        again.merge(arrived());
        runUntilArrived(again.size());
        EXPECT_EQ(arrived(), again);
    }
    void expectRefusal(std::chrono::seconds since, const std::vector<std::string>& more, const std::string& reason) {
        const auto outcome = replay(since, more);
        EXPECT_EQ(outcome.status, 1) << reason;
        EXPECT_NE(outcome.problems.find(reason), std::string::npos) << outcome.problems;
    }

    std::map<std::string, std::string> files() const {
        std::map<std::string, std::string> content;
        for (const auto& folder : {volume.eventData(), volume.conf()}) {
            for (const auto& entry : fs::directory_iterator(folder)) {
                const auto time = entry.last_write_time().time_since_epoch().count();
                content[entry.path()] = std::to_string(time) + textOf(entry.path());
            }
        }
        return content;
    }
    Value storedTime() const { return volume.readConfiguration("myconfigurations.plist")["TimestampOfLastEvent"]; }
};

TEST_F(ReplayTest, EventsFromTheTimeOnComeAgainWithoutTheDurableMode) {
    configure();
    addDay();
    runUntilArrived(26);
    expectDone(kBegin + 22s, "1 trails with 6 records at or after 2023-11-14 22:13:42 UTC\n");
    // The touched trail takes a second, too.
    EXPECT_EQ(storedTime(), Value("1700000020"));
    EXPECT_TRUE(fs::is_empty(volume.eventData()));
    expectAgain(eachOnce(22, 6));
    // No stored time does: the trail before ends in the second before.
    expectDone(kBegin + 10s, "3 trails with 17 records at or after 2023-11-14 22:13:30 UTC\n");
    auto again = eachOnce(10, 10);
    again.merge(eachOnce(22, 6));
    expectAgain(again);
    EXPECT_TRUE(fs::is_empty(volume.eventData()));
}

TEST_F(ReplayTest, EventsFromTheTimeOnComeAgainInTheDurableMode) {
    mine.set("DurableDelivery", true);
    serverInfo.set("IsRealTime", true);
    configure();
    addDay();
    runUntilArrived(26);
    expectDone(kBegin + 14s, "3 trails with 13 records at or after ");
    expectAgain({14, 15, 16, 17, 18, 19, 22, 23, 24, 25, 26, 27});
    // A record that comes from the device first and is in a trail later, an unread one that is older than the time, and
    // batches that wait meanwhile.
    const auto trail = volume.auditFolder() / "closed";
    fs::remove(volume.auditFolder() / "current");
    fs::rename(volume.auditFolder() / "open.not_terminated", trail);
    const auto fromDevice = sudoRecord(kBegin + 40s, 40).bytes();
    FileDescriptor pipe(::open(volume.auditPipe().c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_GT(::write(pipe.get(), fromDevice.data(), fromDevice.size()), 0);
    server.fail({.path = AuditServer::kEventsPath, .status = 500, .count = -1});
    {
        RunningAgent agent(build::kAgent, volume);
        EXPECT_TRUE(waitUntil([this] { return processesIn(server.requests().back().body).contains(40); })) << log();
        EXPECT_EQ(agent.stop(), 0);
    }
    server.clearFailures();
    for (const auto& bytes : {fromDevice, sudoRecord(kBegin + 1s, 90).bytes()}) {
        std::ofstream(trail, std::ios::binary | std::ios::app)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    expectDone(kBegin + 24s, "1 trails with 5 records ");
    expectAgain({24, 25, 26, 27, 40, 40, 90});
    EXPECT_TRUE(server.keyFaults().empty());
}

TEST_F(ReplayTest, TouchIdRecordHasTheUserWhoLoggedOnBeforeTheTime) {
    serverInfo.set("EventsToRead", "AUE_auth_user,AUE_lw_login");
    mine.set("DurableDelivery", true);
    configure();
    volume.addDomainUser("anna", 501, "S-1-5-21-7", "CORP");
    const auto logon = [](std::uint16_t type, std::chrono::seconds time) {
        return TrailRecord(type).at(time).subject({.auditId = 501, .sessionId = 100007}).returns(0);
    };
    TrailWriter trail;
    trail.add(logon(45021, kBegin)).add(logon(45023, kBegin + 9s).text("Touch ID authentication"));
    addTrail(volume, trail);
    for (std::size_t events = 1; events <= 2; ++events) {
        RunningAgent agent(build::kAgent, volume);
        ASSERT_TRUE(server.waitForEvents(events)) << log();
        EXPECT_EQ(agent.stop(), 0);
        EXPECT_NE(server.events().back().find(R"("UserName":"anna")"), std::string::npos) << server.events().back();
        EXPECT_EQ(server.events().back(), server.events().front());
        EXPECT_EQ(replay(kBegin + 9s).status, 0);
    }
}

TEST_F(ReplayTest, RefusalsChangeNothing) {
    addDay();
    const auto expectUnchanged = [this](std::chrono::seconds since, const std::vector<std::string>& more,
                                        const std::string& reason) {
        const auto before = files();
        expectRefusal(since, more, reason);
        EXPECT_EQ(files(), before) << reason;
    };
    mine.set("TimestampOfLastEvent", "1700000027");
    configure();
    expectUnchanged(kBegin, {}, "--yes");
    expectUnchanged(kBegin + 28s, {"--yes"}, "2023-11-14 22:13:48 UTC is later than the stored position");
    const auto trails = volume.auditFolder();
    fs::rename(trails, volume.root() / "away");
    expectUnchanged(kBegin, {"--yes"}, "/var/audit cannot be listed");
    fs::rename(volume.root() / "away", trails);
    serverInfo.set("RecentEventTimeMillis", 1'700'000'020);
    configure();
    expectUnchanged(kBegin, {"--yes"}, "RecentEventTimeMillis");
    serverInfo.remove("RecentEventTimeMillis");
    mine.set("TimestampOfLastEvent", "0");
    configure();
    expectUnchanged(kBegin, {"--yes"}, "no position is stored");
    std::ofstream(volume.conf() / "myconfigurations.plist") << "<plist>";
    expectUnchanged(kBegin, {"--yes"}, "myconfigurations.plist: ");
    EXPECT_EQ(runControl({"replay"}).status, 64);
    EXPECT_EQ(runControl({"replay", "--since", "soon"}).status, 64);
}

TEST_F(ReplayTest, RunningAgentIsStoppedOnlyForAReplayThatIsDone) {
    configure();
    addDay();
    RunningAgent agent(build::kAgent, volume);
    EXPECT_TRUE(waitUntil([this] { return storedTime() == Value("1700000027"); }));
    expectRefusal(kBegin, {"--yes"}, "--restart");
    expectRefusal(kBegin, {"--restart"}, "--yes");
    expectRefusal(kBegin + 999s, {"--restart", "--yes"}, "later than the stored position");
    EXPECT_FALSE(agent.wait(0ms)) << "a refusal has stopped the agent";
    EXPECT_EQ(storedTime(), Value("1700000027"));
    const auto outcome = replay(kBegin + 5s, {"--restart", "--yes"});
    EXPECT_EQ(outcome.status, 0) << outcome.problems;
    EXPECT_NE(outcome.output.find("Start it through its service manager"), std::string::npos) << outcome.output;
    EXPECT_EQ(agent.wait(), 0);
    EXPECT_EQ(storedTime(), Value("1700000004"));
}

}  // namespace
}  // namespace sentrova::testing
