#include "collection/DomainUtil.h"
#include "core/ConfigurationError.h"
#include "core/GlobalVariables.h"
#include "core/PropertyListHandler.h"
#include "forwarding/SecurityUtil.h"
#include "forwarding/TransportEngine.h"
#include "platform/OperatingSystem.h"
#include "support/AgentFixture.h"
#include "support/FaultyFileSystem.h"

#include <atomic>
#include <fstream>
#include <future>
#include <tuple>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

namespace fs = std::filesystem;
using Text = GlobalVariables::Text;

class GlobalVariablesTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    // The configuration after a restart with the fixture's dictionaries.
    GlobalVariables& load() {
        writeConfiguration();
        return reload();
    }
    GlobalVariables& reload() {
        restart();
        GlobalVariables::getInstance().load();
        return GlobalVariables::getInstance();
    }
};

TEST_F(GlobalVariablesTest, DirectoryDomainTakesPrecedenceAndMissingFilesLeaveEverythingEmpty) {
    serverInfo.set("DomainName", "set.example.com");
    serverInfo.set("ServerName", 42);
    serverInfo.set("ServerIP", Array{"not a text"});
    for (const bool bound : {true, false}) {
        bound ? volume().bindTo("corp.example.com", "mac-042$") : volume().setDirectoryTool("", 1);
        const auto& loaded = load();
        EXPECT_EQ(DomainUtil::getDomainName(), bound ? "corp.example.com" : "set.example.com");
        EXPECT_EQ(loaded.serverName(), "42") << "a text may be a number";
        EXPECT_EQ(loaded.serverIP(), std::nullopt);
        EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"), serverInfo);

        fs::remove(volume().conf() / "Serverinfo.plist");
        fs::remove(volume().conf() / "myconfigurations.plist");
        const auto& empty = reload();
        EXPECT_FALSE(empty.serverName() || empty.agentUUID() || empty.isEnabled() || empty.serverPort() != 0);
        EXPECT_TRUE(empty.timeStampOfLastEvent().isNull());
        EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"),
                  bound ? (Dictionary{{"DomainName", "corp.example.com"}, {"AgentName", "mac-042"}})
                        : (Dictionary{{"AgentName", platform::localizedHostName()}}));
        EXPECT_FALSE(fs::exists(volume().conf() / "myconfigurations.plist"));
    }
    // The server's time of the newest event is stored only if the file is missing.
    serverInfo.set("RecentEventTimeMillis", 1'700'000'123);
    myConfigurations.set("TimestampOfLastEvent", "5");
    EXPECT_EQ(load().timeStampOfLastEvent(), Value("5"));
    EXPECT_EQ(volume().readConfiguration("myconfigurations.plist"), myConfigurations);
    fs::remove(volume().conf() / "myconfigurations.plist");
    EXPECT_EQ(reload().timeStampOfLastEvent(), Value(1'700'000'123));
    EXPECT_EQ(volume().readConfiguration("myconfigurations.plist"),
              (Dictionary{{"TimestampOfLastEvent", 1'700'000'123}}));
}

TEST_F(GlobalVariablesTest, IdentityIsDecryptedAfterItsPrefixOf32Utf16Units) {
    const std::string ascii(32, 'v');
    // 28 letters, one of two bytes, one of three, and a pair.
    const std::string mixed = std::string(28, 'v') + "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
    const auto cipher = [](const char* key) { return (*SecurityUtil::encrypt("agent 7", key, "")).value_or(""); };
    EXPECT_EQ(load().agentUUID(), std::nullopt) << "no identity";
    myConfigurations.set("AgentAuthID", ascii + cipher("XEVORTANIMB"));
    EXPECT_EQ(load().agentUUID(), "agent 7") << "no id of the server's";
    serverInfo.set("AgentUID", "uid-7");
    for (const auto& [stored, plain] : {std::pair(ascii + cipher("uid-7"), Text("agent 7")),
                                        {mixed + cipher("uid-7"), "agent 7"},
                                        {ascii + "!", std::nullopt},
                                        {ascii, std::nullopt}}) {
        myConfigurations.set("AgentAuthID", stored);
        EXPECT_EQ(load().agentUUID(), plain) << stored;
    }
    for (const auto& stored : {std::string(31, 'v'), std::string(), std::string(29, 'v') + "\xF0\x9F\x98\x80"}) {
        myConfigurations.set("AgentAuthID", stored);
        EXPECT_THROW(load(), ConfigurationError) << stored;
    }
    EXPECT_EQ(logged("][ERROR]The key \"AgentAuthID\" of " + fs::current_path().string() +
                     "/../conf/myconfigurations.plist holds fewer than 32 characters"),
              3);
}

TEST_F(GlobalVariablesTest, ReloadKeepsUnreadableSettingsAndClearsMissingOnes) {
    const auto good = std::string(32, 'v') + **SecurityUtil::encrypt("agent 7", "XEVORTANIMB", "");
    myConfigurations.set("AgentAuthID", good);
    auto& loaded = load();
    int time = 0;
    for (const auto& identity : {std::string(), std::string("too short"), good, std::string("short again")}) {
        myConfigurations.set("TimestampOfLastEvent", ++time);
        myConfigurations.set("AgentAuthID", identity);
        writeConfiguration();
        EXPECT_NO_THROW(loaded.initialiseMyConfigurations());
        EXPECT_TRUE(loaded.timeStampOfLastEvent() == Value(time) && loaded.agentUUID() == "agent 7");
    }
    EXPECT_EQ(logged("holds fewer than 32 characters"), 2) << "once for each state";

    const std::pair<std::string, void (GlobalVariables::*)()> files[] = {
        {"myconfigurations.plist", &GlobalVariables::initialiseMyConfigurations},
        {"Serverinfo.plist", &GlobalVariables::initialiseServerInfo},
    };
    for (const auto& [file, reload] : files) {
        testing::FaultyFileSystem faults([&name = file](const auto& path) { return path.ends_with(name); });
        int kept = 0;
        for (const int error : {EMFILE, EIO, EACCES}) {
            faults.arm({.call = error == EIO ? faults.kRead : faults.kOpen, .error = error, .number = 1});
            (loaded.*reload)();
            EXPECT_TRUE(loaded.serverFQDN() == "audit.example.com" && loaded.isEnabled()) << file << error;
            EXPECT_EQ(loaded.agentVersion().has_value(), file[0] == 'm') << error;
            EXPECT_EQ(logged(file + " stay as they are in memory"), ++kept);
        }
        fs::remove(volume().conf() / file);
        (loaded.*reload)();
    }
    EXPECT_FALSE(loaded.serverFQDN() || loaded.isEnabled() || loaded.agentVersion() || loaded.agentUUID());
}

// Changes both files while `Serverinfo.plist` is reloaded in a loop.
TEST_F(GlobalVariablesTest, ReloadsNeitherUndoChangesNorMixAddresses) {
    serverInfo.set("RecentEventTimeMillis", 5);
    myConfigurations.set("LogLevel", 0);
    volume().setDirectoryTool("", 1);
    auto& first = load();
    // An answer of the server is stored while the directory tool runs.
    volume().writeConfiguration("answer.plist", {{"ServerFQDN", "new.example.com"}});
    std::ofstream(volume().volume() / "usr/sbin/dsconfigad")
        << "#!/bin/sh\ncp ../conf/answer.plist ../conf/Serverinfo.plist\n";
    first.initialiseServerInfo();
    EXPECT_EQ(first.serverFQDN(), "new.example.com");
    volume().setDirectoryTool("", 1);
    auto& loaded = load();
    const auto mine = (volume().conf() / "myconfigurations.plist").string();
    std::atomic<bool> reloading = true;
    const auto changes = std::async(std::launch::async, [&] {
        for (int i = 1; reloading; ++i) {
            PropertyListHandler::change(mine, "TimestampOfLastEvent", i);
            ASSERT_EQ(PropertyListHandler::initWithFile(mine).GetValueForKey("TimestampOfLastEvent"), Value(i));
        }
    });
    const auto requests = std::async(std::launch::async, [&] {
        while (reloading) {
            const auto url = TransportEngine().baseURL();
            ASSERT_TRUE(url == "http://audit.example.com:8443" || url == "other://other.example.com:1") << url;
        }
    });
    for (int i = 0; i < 60; ++i) {
        serverInfo.set("ServerFQDN", i % 2 == 0 ? "other.example.com" : "audit.example.com");
        serverInfo.set("AgentPort", i % 2 == 0 ? 1 : 8443);
        serverInfo.set("AgentProtocol", i % 2 == 0 ? "other" : "http");
        volume().writeConfiguration("Serverinfo.plist", serverInfo);
        loaded.initialiseServerInfo();
    }
    reloading = false;
}

}  // namespace
}  // namespace sentrova
