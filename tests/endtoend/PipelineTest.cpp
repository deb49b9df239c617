// The whole pipeline of an event: the agent's own program between a system volume and a server on loopback.

#include "endtoend/EndToEnd.h"
#include "foundation/files/FileDescriptor.h"
#include "foundation/formats/Json.h"
#include "foundation/formats/KeyedArchive.h"
#include "service/AgentLock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <gtest/gtest.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;

constexpr auto kMorning = 1'700'000'000s;

using PipelineTest = EndToEnd;

TEST_F(PipelineTest, RealTrailGivesExactlyItsFourEventsOnce) {
    if (!std::filesystem::exists(build::kRealTrail)) {
        GTEST_SKIP() << build::kRealTrail << ", which a real Mac wrote, is not part of the tree, and not there";
    }
    const auto bytes = textOf(build::kRealTrail);
    // The file was modified after its last record.
    volume.addTrail("20131104171720.20131104174500", Data(bytes.begin(), bytes.end()), 1'383'590'700s);
    // Without a console, no owner is added at the start.
    std::filesystem::remove(volume.console());
    serverInfo.set("EventsToRead", "AUE_auth_user,AUE_ssauthint,AUE_lw_login,AUE_logout");
    configure();
    {
        RunningAgent agent(build::kAgent, volume);
        ASSERT_TRUE(server.waitForEvents(4)) << log();
        EXPECT_EQ(agent.stop(), 0);
    }
    const Array expected[] = {{45023, "moxilo", 5000, "failure: Unknown error: 255"},
                              {45023, "moxilo", 0, "success"},
                              {45023, "moxilo", 5000, "failure: Unknown error: 255"},
                              {6153, "501", 0, "success"}};
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        auto event = *Json::parse(server.events().at(i));
        auto& fields = *event.dictionary();
        EXPECT_EQ((Array{fields["EventCode"], fields["UserName"], fields["return_retval"], fields["return_errval"]}),
                  expected[i]);
    }
    EXPECT_TRUE(volume.readConfiguration("myconfigurations.plist")["TimestampOfLastEvent"].string());
    const auto history = textOf(volume.conf() / "currentLogins");
    EXPECT_EQ(*KeyedArchive::unarchive(Data(history.begin(), history.end())),
              (KeyedArchive::Content{{1'383'590'186, Dictionary{{"uid", "501"}}}}));

    RunningAgent again(build::kAgent, volume);
    ASSERT_TRUE(waitForLog(volume, "Event", "54 records read, 0 events collected")) << log("Event");
    EXPECT_EQ(again.stop(), 0);
    EXPECT_EQ(server.events().size(), 4U);
}

TEST_F(PipelineTest, DamagedInputLosesOnlyItsOwnEventsAndTheLogShowsEachStepInOrder) {
    const auto cut = sudoRecord(kMorning, 999).bytes();
    addTrail(volume, sudoTrail(kMorning, 100, 3).addRaw(Data(cut.begin(), cut.begin() + 20)));
    addTrail(volume, sudoTrail(kMorning + 1h, 103, 2)
                         .addRaw(Data{0x14, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3})
                         .add(sudoRecord(kMorning + 2h, 998)));
    addTrail(volume, sudoTrail(kMorning + 3h, 105, 4));
    std::filesystem::create_directory(volume.auditFolder() / "folder");
    std::ofstream(volume.eventData() / "event_20240101000000000") << "[{\"cut\":";
    std::ofstream(volume.conf() / "currentLogins") << "no archive";
    std::filesystem::remove(volume.auditPipe());
    configure();
    std::ofstream(volume.conf() / "logfile.plist") << "<plist><dict><key>Config</key>";

    RunningAgent agent(build::kAgent, volume);
    ASSERT_TRUE(server.waitForEvents(9)) << log();
    ASSERT_TRUE(waitForLog(volume, "Config", "event_20240101000000000 is not a batch of events"));
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_EQ(processesIn(server.events()), eachOnce(100, 9));
    EXPECT_TRUE(std::filesystem::exists(volume.eventData() / "event_20240101000000000"));
    const auto text = log();
    std::size_t at = 0;
    for (const std::string line :
         {"[INFO]isSupportedOsVersion=1", "[DEBUG]Globalvariables initialiseServerInfo called",
          "[ERROR]There is no /dev/auditpipe", "[INFO]GlobalVariables going to sync data from server",
          "[INFO]EventQueueGCD queueData initialised", "[ERROR]Error while unarchiving current login  ",
          "[DEBUG]AgentServiceHandler init Finished", "[INFO]Going to Start Vantorix Sentrova Agent.",
          "[INFO]Zipping Log", "[DEBUG]Calling first schedule",
          "[ERROR]20 bytes of /var/audit/1700000002 are left unread", "[DEBUG]/var/audit/1700000002 file read",
          " bytes of /var/audit/1700007200 are left unread", "[INFO] filename ",
          "[INFO]AgentServiceHandler stop called"}) {
        at = text.find(line, at);
        ASSERT_NE(at, std::string::npos) << line << "\n" << text;
    }
    EXPECT_NE(text.find("logfile.plist is not read"), std::string::npos);
}

TEST_F(PipelineTest, AgentThatCannotRunSaysWhyAndEnds) {
    const std::tuple<const char*, const char*, int, const char*> cases[] = {
        {"10.14.6", nullptr, 0, "[ERROR]Agent cannot run because its either an unsupported version or the User is not"},
        {"9.9", nullptr, 0, "[ERROR]Supported Version = majorVersion.minorVersion"},
        {"14.6.1", nullptr, AlreadyRunningError::kExitStatus, "[ERROR]Another agent holds "},
        {"14.6.1", "short", 78, "The key \"AgentAuthID\" of "},
    };
    for (const auto& [version, identity, status, reason] : cases) {
        SCOPED_TRACE(reason);
        removeLogs();
        volume.setVersion(version);
        identity ? mine.set("AgentAuthID", identity) : void();
        configure();
        FileDescriptor lock;
        if (status == AlreadyRunningError::kExitStatus) {
            lock = FileDescriptor(::open((volume.conf() / "agent.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
            ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
        }
        EXPECT_EQ(RunningAgent(build::kAgent, volume).wait(), status);
        EXPECT_NE(log().find(reason), std::string::npos);
    }
    EXPECT_TRUE(server.requests().empty());
    EXPECT_FALSE(std::filesystem::exists(volume.conf() / "currentLogins"));
}

}  // namespace
}  // namespace sentrova::testing
