#include "core/Utilities.h"
#include "support/AgentFixture.h"

#include <cstdlib>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sentrova {
namespace {

class UtilitiesTest : public ::testing::Test, protected testing::AgentFixture {};

TEST_F(UtilitiesTest, CatalinaAndLaterSystemsAreSupported) {
    const std::pair<const char*, bool> cases[] = {
        {"10.14.6", false}, {"10.15", true}, {"10.15.7", true}, {"10.16", true}, {"11.0", true},     {"12.7.6", true},
        {"26.0.1", true},   {"9.9", false},  {"9.20.1", false}, {"", false},     {"garbage", false},
    };
    for (const auto& [version, supported] : cases) {
        SCOPED_TRACE(version);
        volume().setVersion(version);
        const std::string line = supported ? "][INFO]isSupportedOsVersion=1\r\n" : "][INFO]isSupportedOsVersion=0\r\n";
        const auto before = logged(line);
        EXPECT_EQ(Utilities::isSupportedOSVersion(), supported);
        EXPECT_EQ(logged(line), before + 1);
    }
    volume().setVersion("12.7.6");
    EXPECT_EQ(Utilities::getOSVersion(), (Dictionary{{"majorVersion", 12}, {"minorVersion", 7}, {"patchVersion", 6}}));
    std::filesystem::remove_all(volume().volume() / "System");
    EXPECT_EQ(Utilities::getOSVersion(), (Dictionary{{"majorVersion", 0}, {"minorVersion", 0}, {"patchVersion", 0}}));
    EXPECT_FALSE(Utilities::isSupportedOSVersion());
}

TEST_F(UtilitiesTest, TextBecomesEpochSecondsInTheDevicesZone) {
    struct Case {
        const char* zone;
        const char* text;
        const char* format;
        const char* seconds;
    };
    const Case cases[] = {
        {"UTC", "2020-01-01 00:00:00", "yyyy-MM-dd HH:mm:ss", "1577836800"},
        {"UTC", "2023-11-14 22:13:20.500", "yyyy-MM-dd HH:mm:ss.SSS", "1700000000.5"},
        {"UTC", "1969-12-31 23:59:50", "yyyy-MM-dd HH:mm:ss", "-10"},
        {"UTC", "yesterday", "yyyy-MM-dd HH:mm:ss", "0"},
        {"UTC", "2020-01-01 00:00:00 and more", "yyyy-MM-dd HH:mm:ss", "0"},
        {"UTC", "", "yyyy", "0"},
        {"Asia/Tokyo", "2020-01-01 09:00:00", "yyyy-MM-dd HH:mm:ss", "1577836800"},
    };
    for (const auto& [zone, text, format, seconds] : cases) {
        ::setenv("TZ", zone, 1);
        clock().advance(std::chrono::seconds(1));
        EXPECT_EQ(Utilities::converStringToEpoch(text, format), seconds) << text;
    }
}

TEST_F(UtilitiesTest, TimesBecomeTextInTheDevicesZone) {
    EXPECT_EQ(Utilities::getCurrentTimeInFormat("E, d MMM yyyy HH:mm:ss Z"), "Sun, 15 Nov 2026 12:00:00 +0000");
    const auto text = Utilities::getTimeFromEpoch(1'794'758'320.9);
    for (const auto* part : {"2026", "November", "15", "58:40", "UTC"}) {
        EXPECT_THAT(text, ::testing::HasSubstr(part));
    }
}

}  // namespace
}  // namespace sentrova
