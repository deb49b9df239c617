// The archive of `sentrovactl diagnose`: what it holds, and what it must not hold.

#include "control/ControlHost.h"
#include "endtoend/EndToEnd.h"
#include "forwarding/SecurityUtil.h"
#include "support/ControlProgram.h"

#include <map>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr const char* kHeader = "[2026-11-23 10:00:00 +0000][Any][7:8][DEBUG]";

void shell(const std::string& command) {
    ASSERT_EQ(std::system(command.c_str()), 0);  // NOLINT(concurrency-mt-unsafe)
}

class DiagnoseTest : public EndToEnd {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "only root may run the command";
        }
    }
    ControlOutcome diagnose(std::vector<std::string> options = {}) const {
        options.insert(options.begin(), {"--root", volume.agent(), "diagnose", "-o", archive});
        return runControl(options, {}, {"SENTROVA_SYSTEM_VOLUME=" + volume.volume().string()});
    }
    // The text of all members, each behind its name, as another program unpacks them.
    std::string unpacked() const {
        const auto command = "cd '" + volume.root().string() + "' && tar -xf a.tar --one-top-level=out && " +
                             "cd out/* && grep -r '' . >../../text; cd ../.. && rm -r out";
        shell(command);
        return textOf(volume.root() / "text");
    }
    std::map<std::string, std::string> content() const {
        std::map<std::string, std::string> files;
        std::error_code dangling;
        for (const auto& entry : fs::recursive_directory_iterator(volume.root())) {
            files[entry.path()] = std::to_string(entry.last_write_time(dangling).time_since_epoch().count()) +
                                  (entry.is_regular_file() ? textOf(entry.path()) : "");
        }
        return files;
    }

    std::string archive = volume.root() / "a.tar";
};

TEST_F(DiagnoseTest, ArchiveHasThePartsAndNoFormOfASecret) {
    const std::string key = "k&y \"7\xC3\xA9\\q'<z";
    const control::ControlHost host;
    serverInfo.set("OrgAccessKey", key);
    serverInfo.set("AgentUID", "uid-4711");
    serverInfo.set("AgentUId", "missp\\\xC3\xA9lled");
    mine.set("AgentAuthID", std::string(32, 'x') + **SecurityUtil::encrypt("identity-zz", "uid-4711", ""));
    configure();
    const auto cipher = mine["AgentAuthID"].description();
    const std::vector<std::string> forms = {
        key, cipher, "identity-zz", "uid-4711", R"({"a":"k&y \"7é\\q'<z"})", R"("{\"a\":\"k&y \\\"7\u00e9\\\\q'<z\"}")",
        R"("k&y \"7\U00e9\\q'<z")", "k&amp;y &quot;7&#xE9;\\q&apos;&lt;z", "k%26y+%227%C3%A9%5cq%27%3Cz",
        // In base64 behind 0, 1 and 2 bytes, and in hexadecimal.
        "ayZ5ICI3w6lccSc8eg==", "YWsmeSAiN8OpXHEnPHph", "YWFrJnkgIjfDqVxxJzx6", "6b2679202237c3a95c71273c7a",
        // Former and short values, behind their names.
        R"(OrgAccessKey = "former\"one"; )", R"({"AgentUID":42,"AgentAuthID": "former"})", "OrgAccessKey: former",
        R"("missp\\\u00e9lled")", "<key>AgentUID</key>\n<string>former</string>",
        "DATA= {length = 9, bytes = 0x6964656e74 ... 6974792d39}"};
    std::string text;
    for (const auto& form : forms) {
        text += kHeader + form + "\r\n";
    }
    std::ofstream(volume.logs() / "Config2026-11-23.log") << text << kHeader << "Serverinfo.plist: AgentUID: kept\r\n";
    std::ofstream(volume.logs() / "Old[1].log") << text;
    shell("cd '" + volume.logs().string() + "' && zip -qm archive/Old*.zip Old*.log");
    std::ofstream(volume.logs() / "archive/Damaged.zip") << "no zip";
    fs::create_symlink("/etc/hostname", volume.conf() / "schedules.plist");
    fs::create_directories(volume.volume() / "etc/security");
    std::ofstream(volume.volume() / "etc/security/audit_control") << "flags:lo,aa\n";
    const auto before = content();

    const auto outcome = diagnose();
    EXPECT_EQ(outcome.status, 0) << outcome.problems;
    EXPECT_NE(outcome.output.find("OrgAccessKey, AgentAuthID and AgentUID"), std::string::npos);
    EXPECT_EQ(fs::status(archive).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    const auto all = unpacked();
    for (const auto* part :
         {"conf/Serverinfo.plist:", "conf/myconfigurations.plist:", "conf/schedules.plist", "status.txt:Not running",
          "status.json:{", "check.txt:Serverinfo.plist: AgentUId", "probe.txt:http://", "versions.txt:macOS 14",
          "logs/Config2026-11-23.log:", "Serverinfo.plist: AgentUID: kept", "logs/archive/Old*.zip.txt:[20",
          "logs/archive/Damaged.zip.txt:", "audit/audit_control:flags:lo,aa", "files.txt:file"}) {
        EXPECT_NE(all.find(part), std::string::npos) << part;
    }
    for (const auto* secret : {"k&", "k%", "q'", "7\xC3", "uid-", "-zz", "former", "missp", "UID\":42", "ICI3", "AiN8",
                               "IjfD", "c3a95c", "0x69", "Jzx6", "xxxx"}) {
        EXPECT_EQ(all.find(secret), std::string::npos) << secret << all;
    }
    fs::remove(archive);
    fs::remove(volume.root() / "text");
    EXPECT_EQ(content(), before) << "the installation is as it was";
}

TEST_F(DiagnoseTest, EventsAreLeftOutIfAskedBesideARunningAgent) {
    mine.set("LogLevel", 2);
    serverInfo.set("AgentUID", "uid-4711");
    configure();
    volume.addDomainUser("anna.of.corp", 4001, "S-1-5-21-7", "corp.example.com");
    fs::copy(build::kShippedSchedules, volume.conf());
    // The log tells of records that are left out, here of the last one.
    auto trail = sudoTrail(1'700'000'000s, 500, 4);
    trail.add(TrailRecord(6153).at(1'700'000'004s).subject({.auditId = 4001}).identity("com.apple.sshd").returns(0));
    addTrail(volume, trail);
    RunningAgent agent(build::kAgent, volume);
    ASSERT_TRUE(server.waitForEvents(4));
    ASSERT_EQ(diagnose().status, 0);
    EXPECT_NE(unpacked().find("subject_pid"), std::string::npos);
    ASSERT_EQ(diagnose({"--no-events"}).status, 0);
    const auto all = unpacked();
    EXPECT_NE(all.find("status.txt:Healthy"), std::string::npos) << all;
    for (const auto* text : {"subject_pid", "anna", "uid-4711", "record_time"}) {
        EXPECT_EQ(all.find(text), std::string::npos) << text << all;
    }
    EXPECT_EQ(agent.stop(), 0);
}

TEST_F(DiagnoseTest, FileThatCannotBeWrittenIsNamedAndLeavesNothing) {
    configure();
    const auto before = content();
    for (const auto& path : {volume.root() / "missing/a.tar", volume.logs(), fs::path("/dev/null"),
                             volume.conf() / "Serverinfo.plist/a"}) {
        archive = path;
        const auto outcome = diagnose();
        EXPECT_EQ(outcome.status, 1);
        EXPECT_TRUE(outcome.problems.starts_with("sentrovactl: " + archive + " cannot be written: "))
            << outcome.problems;
        EXPECT_EQ(outcome.output, "");
    }
    EXPECT_EQ(content(), before);
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

}  // namespace
}  // namespace sentrova::testing
