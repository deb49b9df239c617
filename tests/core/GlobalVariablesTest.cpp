#include "collection/DomainUtil.h"
#include "core/ConfigurationError.h"
#include "core/GlobalVariables.h"
#include "forwarding/SecurityUtil.h"
#include "platform/OperatingSystem.h"
#include "support/AgentFixture.h"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

namespace fs = std::filesystem;
using Text = GlobalVariables::Text;

class GlobalVariablesTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    // The configuration of a fresh start on the present dictionaries.
    GlobalVariables& load() {
        writeConfiguration();
        return reload();
    }
    GlobalVariables& reload() {
        restart();
        return GlobalVariables::getInstance();
    }
    static std::string identity(const std::string& plain, const std::string& key, const std::string& prefix) {
        return prefix + (*SecurityUtil::encrypt(plain, key, "")).value_or("");
    }
};

TEST_F(GlobalVariablesTest, BothFilesFillTheProperties) {
    serverInfo.set("AgentUID", "uid-7");
    myConfigurations.set("TimestampOfLastEvent", "1700000000");
    const auto& loaded = load();
    const auto folder = fs::current_path().string();
    EXPECT_EQ(loaded.agentInstallationPath(), folder);
    EXPECT_EQ(loaded.confPath(), folder + "/../conf");
    EXPECT_EQ(loaded.binPath(), folder + "/../bin");
    EXPECT_EQ(loaded.logsPath(), folder + "/../logs");
    EXPECT_EQ(loaded.eventDataPath(), folder + "/../eventData");
    const std::pair<Text, const char*> texts[] = {
        {loaded.orgAccessKey(), "org-access-key"},
        {loaded.agentUID(), "uid-7"},
        {loaded.serverIP(), "192.0.2.1"},
        {loaded.serverFQDN(), "audit.example.com"},
        {loaded.serverName(), "audit"},
        {loaded.serverProtocol(), "https"},
        {loaded.agentProtocol(), "http"},
        {loaded.NATServerName(), "-"},
        {loaded.NATProtocol(), "https"},
        {loaded.hostName(), "mac-042"},
        {loaded.agentVersion(), "1.0.0"},
    };
    for (const auto& [actual, expected] : texts) {
        EXPECT_EQ(actual, expected);
    }
    EXPECT_EQ(loaded.eventsToRead(), *serverInfo["EventsToRead"].string());
    EXPECT_EQ(loaded.serverPort(), 9443);
    EXPECT_EQ(loaded.agentPort(), 8443);
    EXPECT_EQ(loaded.NATPort(), 7443);
    EXPECT_EQ(loaded.noOfEventsPerRequest(), 3);
    EXPECT_EQ(loaded.eventDataSize(), 1);
    EXPECT_EQ(loaded.logLevel(), 2);
    EXPECT_EQ(loaded.timeStampOfLastEvent(), Value("1700000000"));
    EXPECT_TRUE(loaded.isEnabled());
    EXPECT_FALSE(loaded.isRealTime() || loaded.maxEventDataSizeReached() || loaded.isNATConfigured());
    EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"), serverInfo);
    const auto whole = log();
    std::size_t at = 0;
    for (const auto* line : {"GlobalVariables Initialised", "Globalvariables initialiseAgentPaths called",
                             "\tconf=", "Globalvariables initialiseServerInfo called",
                             "Globalvariables initialiseMyConfigurations called"}) {
        at = whole.find(line, at);
        EXPECT_NE(at, std::string::npos) << line;
    }
}

TEST_F(GlobalVariablesTest, NumbersMayBeTextsAndTextsNumbers) {
    for (const auto& [key, value] : std::initializer_list<Dictionary::Entry>{{"Port", "8443 or so"},
                                                                             {"AgentPort", 80.9},
                                                                             {"NATPort", "70"},
                                                                             {"NumberofEventsPerRequest", "12"},
                                                                             {"MaxEventDataSize", "-5"},
                                                                             {"IsRealTime", "YES"},
                                                                             {"isEnabled", "no"},
                                                                             {"ServerName", 42},
                                                                             {"ServerIP", Array{"not a text"}}}) {
        serverInfo.set(key, value);
    }
    myConfigurations.set("AgentVersion", 7.5);
    const auto& loaded = load();
    EXPECT_EQ(loaded.serverPort(), 8443);
    EXPECT_EQ(loaded.agentPort(), 80);
    EXPECT_EQ(loaded.NATPort(), 70);
    EXPECT_EQ(loaded.noOfEventsPerRequest(), 12);
    EXPECT_EQ(loaded.eventDataSize(), -5);
    EXPECT_TRUE(loaded.isRealTime());
    EXPECT_FALSE(loaded.isEnabled());
    EXPECT_EQ(loaded.serverName(), "42");
    EXPECT_EQ(loaded.serverIP(), std::nullopt);
    EXPECT_EQ(loaded.agentVersion(), "7.5");
}

TEST_F(GlobalVariablesTest, MissingFilesLeaveEverythingEmptyAndTheFirstIsCreated) {
    for (const bool bound : {true, false}) {
        if (!bound) {
            volume().setDirectoryTool("", 1);
        }
        fs::remove(volume().conf() / "Serverinfo.plist");
        fs::remove(volume().conf() / "myconfigurations.plist");
        const auto& loaded = reload();
        EXPECT_EQ(loaded.serverName(), std::nullopt);
        EXPECT_EQ(loaded.eventsToRead(), std::nullopt);
        EXPECT_EQ(loaded.agentUUID(), std::nullopt);
        EXPECT_EQ(loaded.serverPort(), 0);
        EXPECT_EQ(loaded.type(), 0U);
        EXPECT_FALSE(loaded.isEnabled());
        EXPECT_TRUE(loaded.timeStampOfLastEvent().isNull());
        EXPECT_EQ(loaded.hostName(), bound ? Text("mac-042") : Text());
        EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"),
                  bound ? (Dictionary{{"DomainName", "corp.example.com"}, {"AgentName", "mac-042"}})
                        : (Dictionary{{"AgentName", platform::localizedHostName()}}));
        EXPECT_FALSE(fs::exists(volume().conf() / "myconfigurations.plist"));
    }
}

TEST_F(GlobalVariablesTest, ConfiguredDomainCountsUnlessTheDirectoryNamesOne) {
    struct Case {
        Value configured;
        bool bound;
        Text domain;
    };
    const Case cases[] = {{"set.example.com", true, "corp.example.com"},
                          {"set.example.com", false, "set.example.com"},
                          {"", true, "corp.example.com"},
                          {"", false, std::nullopt}};
    for (const auto& [configured, bound, domain] : cases) {
        SCOPED_TRACE(configured.description());
        bound ? volume().bindTo("corp.example.com", "mac-042$") : volume().setDirectoryTool("", 1);
        serverInfo.set("DomainName", configured);
        load();
        EXPECT_EQ(DomainUtil::getDomainName(), domain);
        EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"), serverInfo);
    }
}

TEST_F(GlobalVariablesTest, RelaysNameDecidesOverTheCommunicationType) {
    struct Case {
        Value relay;
        Value stored;
        std::uint64_t type;
        bool hasRelay;
    };
    const Case cases[] = {
        {"-", 2, 2, false},     {"", 1, 1, false},     {"", "2", 2, false}, {"-", Value(), 0, false},
        {Value(), 2, 0, false}, {"relay", 2, 0, true}, {"--", 1, 0, true},
    };
    for (const auto& [relay, stored, type, hasRelay] : cases) {
        SCOPED_TRACE(relay.description() + " " + stored.description());
        serverInfo.remove("NATServerName");
        myConfigurations.remove("CommunicationType");
        if (!relay.isNull()) {
            serverInfo.set("NATServerName", relay);
        }
        if (!stored.isNull()) {
            myConfigurations.set("CommunicationType", stored);
        }
        EXPECT_EQ(load().type(), type);
        EXPECT_EQ(GlobalVariables::getInstance().hasNATServer(), hasRelay);
    }
}

TEST_F(GlobalVariablesTest, RecentEventTimeFillsOnlyAFileThatIsMissing) {
    serverInfo.set("RecentEventTimeMillis", 1'700'000'123);
    myConfigurations.set("TimestampOfLastEvent", "5");
    EXPECT_EQ(load().timeStampOfLastEvent(), Value("5"));
    EXPECT_EQ(volume().readConfiguration("myconfigurations.plist"), myConfigurations);

    fs::remove(volume().conf() / "myconfigurations.plist");
    EXPECT_EQ(reload().timeStampOfLastEvent(), Value(1'700'000'123));
    EXPECT_EQ(volume().readConfiguration("myconfigurations.plist"),
              (Dictionary{{"TimestampOfLastEvent", 1'700'000'123}}));
    EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"), serverInfo);
}

TEST_F(GlobalVariablesTest, IdentityIsDecryptedBehindItsPrefix) {
    const std::string ascii(32, 'v');
    // 32 UTF-16 units: 28 letters, one of two bytes, one of three, and a pair.
    const std::string mixed = std::string(28, 'v') + "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
    struct Case {
        const char* what;
        Value uid;
        Value stored;
        Text plain;
    };
    const Case cases[] = {
        {"the server's id", "uid-7", identity("agent 7", "uid-7", ascii), "agent 7"},
        {"no id", Value(), identity("agent 7", "XEVORTANIMB", ascii), "agent 7"},
        {"characters of more bytes", "uid-7", identity("agent 7", "uid-7", mixed), "agent 7"},
        {"no base64", "uid-7", ascii + "!", std::nullopt},
        {"prefix alone", "uid-7", ascii, std::nullopt},
        {"no identity", "uid-7", Value(), std::nullopt},
    };
    for (const auto& [what, uid, stored, plain] : cases) {
        SCOPED_TRACE(what);
        serverInfo.remove("AgentUID");
        myConfigurations.remove("AgentAuthID");
        if (!uid.isNull()) {
            serverInfo.set("AgentUID", uid);
        }
        if (!stored.isNull()) {
            myConfigurations.set("AgentAuthID", stored);
        }
        EXPECT_EQ(load().agentUUID(), plain);
    }
    EXPECT_NE(reload().agentUUID(), "agent 7");
}

TEST_F(GlobalVariablesTest, IdentityShorterThanItsPrefixIsAConfigurationErrorInWords) {
    for (const auto& stored : {std::string(31, 'v'), std::string(), std::string(29, 'v') + "\xF0\x9F\x98\x80"}) {
        myConfigurations.set("AgentAuthID", stored);
        EXPECT_THROW(load(), ConfigurationError) << stored;
        EXPECT_THROW(GlobalVariables::getInstance(), ConfigurationError);
    }
    EXPECT_EQ(logged("][ERROR]The key \"AgentAuthID\" of " + fs::current_path().string() +
                     "/../conf/myconfigurations.plist holds fewer than 32 characters"),
              6);
}

}  // namespace
}  // namespace sentrova
