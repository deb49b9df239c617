#include "collection/DomainUtil.h"
#include "core/ConfigurationError.h"
#include "core/GlobalVariables.h"
#include "forwarding/SecurityUtil.h"
#include "platform/OperatingSystem.h"
#include "support/AgentFixture.h"

#include <filesystem>
#include <string>
#include <tuple>

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
    static void put(Dictionary& dictionary, const char* key, const Value& value) {
        value.isNull() ? static_cast<void>(dictionary.remove(key)) : dictionary.set(key, value);
    }
};

TEST_F(GlobalVariablesTest, ConfiguredDomainCountsUnlessTheDirectoryNamesOneAndTextsMayBeNumbers) {
    serverInfo.set("DomainName", "set.example.com");
    serverInfo.set("ServerName", 42);
    serverInfo.set("ServerIP", Array{"not a text"});
    for (const bool bound : {true, false}) {
        bound ? volume().bindTo("corp.example.com", "mac-042$") : volume().setDirectoryTool("", 1);
        const auto& loaded = load();
        EXPECT_EQ(DomainUtil::getDomainName(), bound ? "corp.example.com" : "set.example.com");
        EXPECT_EQ(loaded.serverName(), "42");
        EXPECT_EQ(loaded.serverIP(), std::nullopt);
        EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"), serverInfo);
    }
}

TEST_F(GlobalVariablesTest, MissingFilesLeaveEverythingEmptyAndTheFirstIsCreated) {
    for (const bool bound : {true, false}) {
        bound ? volume().bindTo("corp.example.com", "mac-042$") : volume().setDirectoryTool("", 1);
        fs::remove(volume().conf() / "Serverinfo.plist");
        fs::remove(volume().conf() / "myconfigurations.plist");
        const auto& loaded = reload();
        EXPECT_FALSE(loaded.serverName() || loaded.agentUUID() || loaded.isEnabled() || loaded.serverPort() != 0);
        EXPECT_TRUE(loaded.timeStampOfLastEvent().isNull());
        EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"),
                  bound ? (Dictionary{{"DomainName", "corp.example.com"}, {"AgentName", "mac-042"}})
                        : (Dictionary{{"AgentName", platform::localizedHostName()}}));
        EXPECT_FALSE(fs::exists(volume().conf() / "myconfigurations.plist"));
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
}

TEST_F(GlobalVariablesTest, IdentityIsDecryptedBehindItsPrefixOf32Units) {
    const std::string ascii(32, 'v');
    // 28 letters, one of two bytes, one of three, and a pair.
    const std::string mixed = std::string(28, 'v') + "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
    const auto cipher = [](const char* key) { return (*SecurityUtil::encrypt("agent 7", key, "")).value_or(""); };
    const std::tuple<const char*, Value, Value, Text> cases[] = {
        {"the server's id", "uid-7", ascii + cipher("uid-7"), "agent 7"},
        {"no id", Value(), ascii + cipher("XEVORTANIMB"), "agent 7"},
        {"characters of more bytes", "uid-7", mixed + cipher("uid-7"), "agent 7"},
        {"no base64", "uid-7", ascii + "!", std::nullopt},
        {"prefix alone", "uid-7", ascii, std::nullopt},
        {"no identity", "uid-7", Value(), std::nullopt},
    };
    for (const auto& [what, uid, stored, plain] : cases) {
        put(serverInfo, "AgentUID", uid);
        put(myConfigurations, "AgentAuthID", stored);
        EXPECT_EQ(load().agentUUID(), plain) << what;
    }
    for (const auto& stored : {std::string(31, 'v'), std::string(), std::string(29, 'v') + "\xF0\x9F\x98\x80"}) {
        myConfigurations.set("AgentAuthID", stored);
        EXPECT_THROW(load(), ConfigurationError) << stored;
    }
    EXPECT_EQ(logged("][ERROR]The key \"AgentAuthID\" of " + fs::current_path().string() +
                     "/../conf/myconfigurations.plist holds fewer than 32 characters"),
              3);
}

}  // namespace
}  // namespace sentrova
