#include "BuildPaths.h"
#include "core/GlobalConstants.h"
#include "core/GlobalVariables.h"
#include "core/PropertyListHandler.h"
#include "support/AgentFixture.h"

#include <filesystem>
#include <set>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace sentrova::testing {

class ShippedConfigurationTest : public ::testing::Test, protected AgentFixture {
  protected:
    static std::string packaged(const std::string& file) {
        return std::string(build::kSourceDir) + "/packaging/" + file;
    }
};

TEST_F(ShippedConfigurationTest, ExamplesAreReadAsTheyAreMeant) {
    using Keys = GlobalConstants;
    const struct {
        std::string_view file;
        std::set<std::string_view> keys;
    } files[] = {
        {Keys::SERVER_INFO_FILE,
         {Keys::SERVERFQDN, Keys::SERVERNAME, Keys::SERVERIP, Keys::SERVER_PORT, Keys::PROTOCOL, Keys::AGENT_PORT,
          Keys::AGENT_PROTOCOL, Keys::NAT_SERVER, Keys::IS_ENABLED, Keys::REALTIME, Keys::EVENTS_TO_READ,
          Keys::NUMBER_OF_EVENTS, Keys::MAX_DATA_SIZE, Keys::FETCH_INTERVAL, Keys::SYNCTIME}},
        {Keys::MY_CONFIGURATIONS_FILE,
         {Keys::TIMESTAMP_LE, Keys::LOG_LEVEL, Keys::AGENT_VERSION, Keys::COMMUNICATION_TYPE}},
    };
    for (const auto& [name, keys] : files) {
        const auto example = packaged("conf/" + std::string(name));
        const auto list = PropertyListHandler::initWithFile(example);
        std::set<std::string_view> found;
        for (const auto& [key, value] : *list.dictionary()) {
            found.insert(key);
        }
        EXPECT_EQ(found, keys) << name;
        std::filesystem::copy_file(example, volume().conf() / name, std::filesystem::copy_options::overwrite_existing);
    }
    restart();
    const auto& configuration = GlobalVariables::getInstance();
    EXPECT_EQ(configuration.serverFQDN(), "audit.example.com");
    EXPECT_EQ(configuration.serverPort(), 443);
    EXPECT_EQ(configuration.agentPort(), 8443);
    EXPECT_FALSE(configuration.hasNATServer());
    EXPECT_TRUE(configuration.isEnabled());
    EXPECT_TRUE(configuration.isRealTime());
    // The fixture's list is that of all known events.
    EXPECT_EQ(configuration.eventsToRead(), serverInfo["EventsToRead"].description());
    EXPECT_EQ(configuration.noOfEventsPerRequest(), 100);
    EXPECT_EQ(configuration.type(), 2U);
    EXPECT_EQ(configuration.timeStampOfLastEvent().integerValue(), 0);
    EXPECT_EQ(configuration.agentVersion(), "1.0.0");
}

TEST_F(ShippedConfigurationTest, JobRunsTheAgentAsItMustBeRun) {
    const std::string label = "com.kelvark.vantorix.sentrova.agent";
    const auto job = PropertyListHandler::initWithFile(packaged("macos/" + label + ".plist"));
    const auto folder = job.GetValueForKey("WorkingDirectory").description();
    EXPECT_TRUE(folder.starts_with('/') && folder.ends_with("/bin")) << folder;
    EXPECT_EQ(job.GetValueForKey("ProgramArguments"), Value(Array{folder + "/sentrova-agent"}));
    EXPECT_EQ(job.GetValueForKey("Label"), Value(label));
    EXPECT_EQ(job.GetValueForKey("UserName"), Value("root"));
    EXPECT_EQ(job.GetValueForKey("KeepAlive"), Value(true));
    EXPECT_EQ(job.GetValueForKey("RunAtLoad"), Value(true));
    EXPECT_EQ(job.GetValueForKey("Umask").integerValue(), 077);
    EXPECT_GE(job.GetValueForKey("ThrottleInterval").integerValue(), 10);
    // Longer than any wait of the agent's own while it stops.
    EXPECT_GT(job.GetValueForKey("ExitTimeOut").integerValue(), 10);
}

}  // namespace sentrova::testing
