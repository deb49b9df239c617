#include "core/Utilities.h"
#include "service/CommandLine.h"
#include "support/AgentFixture.h"

#include <gtest/gtest.h>

namespace sentrova {
namespace {

class UtilitiesTest : public ::testing::Test, protected testing::AgentFixture {};

TEST_F(UtilitiesTest, CatalinaAndLaterSystemsAreSupported) {
    const std::pair<const char*, bool> cases[] = {{"10.14.6", false}, {"10.15", true}, {"10.16", true}, {"11.0", true},
                                                  {"26.0.1", true},   {"9.20", false}, {"", false},     {"so", false}};
    for (const auto& [version, supported] : cases) {
        volume().setVersion(version);
        EXPECT_EQ(Utilities::isSupportedOSVersion(), supported) << version;
    }
    volume().setVersion("12.7.6");
    EXPECT_EQ(Utilities::getOSVersion(), (Dictionary{{"majorVersion", 12}, {"minorVersion", 7}, {"patchVersion", 6}}));
    std::filesystem::remove_all(volume().volume() / "System");
    EXPECT_FALSE(Utilities::isSupportedOSVersion());
}

TEST_F(UtilitiesTest, OnlyTheVersionAndHelpOptionsPrintToStandardOutput) {
    using Arguments = std::vector<const char*>;
    EXPECT_TRUE(replyTo(Arguments{"--version"}).text.starts_with("sentrova-agent "));
    EXPECT_TRUE(replyTo(Arguments{"--help"}).text.starts_with("usage: "));
    EXPECT_EQ(replyTo(Arguments{"--version"}).status + replyTo(Arguments{"--help"}).status, 0);
    for (const auto& unknown : {Arguments{""}, {"version"}, {"--version", "--help"}}) {
        EXPECT_EQ(replyTo(unknown).status, 64) << unknown.front();
    }
}

TEST_F(UtilitiesTest, TextBecomesEpochSecondsOrZero) {
    const std::pair<const char*, const char*> cases[] = {
        {"2023-11-14 22:13:20.500", "1700000000.5"}, {"1969-12-31 23:59:50.000", "-10"}, {"2020-01-01", "0"}};
    for (const auto& [text, seconds] : cases) {
        EXPECT_EQ(Utilities::converStringToEpoch(text, "yyyy-MM-dd HH:mm:ss.SSS"), seconds) << text;
    }
}

}  // namespace
}  // namespace sentrova
