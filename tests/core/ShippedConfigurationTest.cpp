#include "BuildPaths.h"
#include "core/GlobalVariables.h"
#include "core/PropertyListHandler.h"
#include "support/AgentFixture.h"

#include <filesystem>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

namespace sentrova::testing {

class ShippedConfigurationTest : public ::testing::Test, protected AgentFixture {
  protected:
    static std::string packaged(const std::string& file) {
        return std::string(build::kSourceDir) + "/packaging/" + file;
    }
};

TEST_F(ShippedConfigurationTest, ExampleFilesAreReadAsIntended) {
    // The fixture has all keys that the agent knows.
    const std::tuple<const char*, Dictionary, std::size_t> files[] = {{"Serverinfo.plist", serverInfo, 15},
                                                                      {"myconfigurations.plist", myConfigurations, 5}};
    for (const auto& [name, known, count] : files) {
        const auto example = packaged(std::string("conf/") + name);
        const auto list = PropertyListHandler::initWithFile(example);
        EXPECT_EQ(list.dictionary()->size(), count);
        for (const auto& [key, value] : *list.dictionary()) {
            EXPECT_TRUE(known.contains(key)) << key;
        }
        std::filesystem::copy_file(example, volume().conf() / name, std::filesystem::copy_options::overwrite_existing);
    }
    restart();
    const auto& configuration = GlobalVariables::getInstance();
    EXPECT_EQ(configuration.serverFQDN(), "audit.example.com");
    EXPECT_EQ(configuration.serverPort(), 443);
    EXPECT_EQ(configuration.agentPort(), 8443);
    EXPECT_TRUE(configuration.isEnabled() && configuration.isRealTime() &&
                configuration.snapshot()->relay() != Relay::named);
    // The fixture lists all known events.
    EXPECT_EQ(configuration.eventsToRead(), serverInfo["EventsToRead"].description());
    EXPECT_EQ(configuration.noOfEventsPerRequest(), 100);
    EXPECT_EQ(configuration.timeStampOfLastEvent().integerValue(), 0);
    EXPECT_EQ(configuration.agentVersion(), "1.0.0");
}

TEST_F(ShippedConfigurationTest, LaunchdJobRunsTheAgentAsRequired) {
    const std::string label = "com.kelvark.vantorix.sentrova.agent";
    const auto job = *PropertyListHandler::initWithFile(packaged("macos/" + label + ".plist")).dictionary();
    const auto folder = job["WorkingDirectory"].description();
    EXPECT_TRUE(folder.starts_with('/') && folder.ends_with("/bin")) << folder;
    const Dictionary expected = {{"ProgramArguments", Array{folder + "/sentrova-agent"}},
                                 {"Label", label},
                                 {"UserName", "root"},
                                 {"KeepAlive", true},
                                 {"RunAtLoad", true},
                                 // A folder that always exists, because launchd does not create it.
                                 {"StandardErrorPath", "/var/log/" + label + ".log"},
                                 {"Umask", 077}};
    for (const auto& [key, value] : expected) {
        EXPECT_EQ(job[key], value) << key;
    }
    EXPECT_GE(job["ThrottleInterval"].integerValue(), 10);
    // Longer than the longest wait of the agent while it stops.
    EXPECT_GT(job["ExitTimeOut"].integerValue(), 10);
}

}  // namespace sentrova::testing
