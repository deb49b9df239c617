#include "collection/DomainUtil.h"
#include "support/AgentFixture.h"
#include "support/FakeDirectory.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include <gtest/gtest.h>

namespace sentrova::testing {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

class DomainUtilTest : public ::testing::Test, protected AgentFixture {
  protected:
    // Puts a note of each run between the caller and the directory tool.
    void countRuns() {
        const auto tool = volume().volume() / "usr/sbin/dsconfigad";
        fs::rename(tool, tool.string() + ".real");
        std::ofstream(tool) << "#!/bin/sh\necho \"$@\" >> \"$0.runs\"\nexec \"$0.real\" \"$@\"\n";
        fs::permissions(tool, fs::perms::owner_all);
    }

    // Runs since the last call; each of them must have had the right arguments.
    int runs() {
        const auto path = volume().volume() / "usr/sbin/dsconfigad.runs";
        std::ifstream in(path);
        int count = 0;
        for (std::string line; std::getline(in, line); ++count) {
            EXPECT_EQ(line, "-show -xml");
        }
        fs::remove(path);
        return count;
    }
};

TEST_F(DomainUtilTest, NothingIsRememberedUntilADomainIsSet) {
    countRuns();
    EXPECT_EQ(DomainUtil::getDomainName(), "corp.example.com");
    EXPECT_EQ(DomainUtil::getDomainName(), "corp.example.com");
    EXPECT_EQ(DomainUtil::getHostName(), "mac-042");
    EXPECT_EQ(runs(), 3);

    DomainUtil::setDomainName("configured.example.com");
    EXPECT_EQ(DomainUtil::getDomainName(), "configured.example.com");
    EXPECT_EQ(runs(), 0);
    // What the tool says of the domain replaces the configured name.
    EXPECT_EQ(DomainUtil::getHostName(), "mac-042");
    EXPECT_EQ(DomainUtil::getDomainName(), "corp.example.com");
    EXPECT_EQ(DomainUtil::getHostName(), "mac-042");
    EXPECT_EQ(runs(), 1);
    EXPECT_EQ(logged("hostname is returned mac-042"), 2);

    DomainUtil::setDomainName("new.example.com");
    EXPECT_EQ(DomainUtil::getDomainName(), "new.example.com");
}

TEST_F(DomainUtilTest, OnlyADollarSignAtTheEndOfTheAccountIsDropped) {
    const std::pair<const char*, const char*> cases[] = {
        {"mac$", "mac"}, {"mac", "mac"}, {"m$c", "m$c"}, {"m$$", "m$"}};
    for (const auto& [account, host] : cases) {
        volume().bindTo("corp.example.com", account);
        EXPECT_EQ(DomainUtil::getHostName(), host);
    }
}

TEST_F(DomainUtilTest, ToolWithoutAUsableAnswerIsAskedAgain) {
    const std::string head = "<plist version=\"1.0\"><dict><key>General Info</key>";
    const std::pair<std::string, int> cases[] = {
        {head + "<dict><key>Computer Account</key><string>mac$</string></dict></dict></plist>", 1},
        {head + "<string>none</string></dict></plist>", 0},
        {"no property list", 0},
        {"", 0},
    };
    DomainUtil::setDomainName("configured.example.com");
    for (const auto& [output, status] : cases) {
        volume().setDirectoryTool(output, status);
        countRuns();
        EXPECT_EQ(DomainUtil::getHostName(), std::nullopt) << output;
        EXPECT_EQ(DomainUtil::getHostName(), std::nullopt) << output;
        EXPECT_EQ(runs(), 2) << output;
    }
    fs::remove(volume().volume() / "usr/sbin/dsconfigad");
    EXPECT_EQ(DomainUtil::getHostName(), std::nullopt) << "no tool at all";
}

TEST_F(DomainUtilTest, DetailsOfAKnownUserAreAskedForOnce) {
    FakeDirectory directory;
    EXPECT_EQ(DomainUtil::getUserDetails("anna"), nullptr);
    EXPECT_EQ(DomainUtil::getUserDetails("anna"), nullptr);
    EXPECT_EQ(directory.queries.size(), 2U);

    directory.records["anna"] = {
        {{platform::kAttributeRecordName, {"anna"}}, {platform::kAttributePrimaryNtDomain, {"CORP"}}},
        {{platform::kAttributeRecordName, {"anna", "Anna B"}}, {platform::kAttributeSmbSid, {"S-1", "S-2"}}}};
    const auto details = DomainUtil::getUserDetails("anna");
    ASSERT_TRUE(details);
    EXPECT_EQ(*details, (Dictionary{{DomainUtil::kODAttributeTypePrimaryNTDomain, Value()},
                                    {DomainUtil::kODAttributeTypeUniqueID, Value()},
                                    {DomainUtil::kODAttributeTypeSMBSID, Array{"S-1", "S-2"}},
                                    {DomainUtil::kODAttributeTypeRecordName, Array{"anna", "Anna B"}}}))
        << "the last record counts, with a place for every attribute";
    directory.records.clear();
    EXPECT_EQ(DomainUtil::getUserDetails("anna"), details);
    EXPECT_EQ(directory.queries, (std::vector<std::string>{"anna", "anna", "anna"}));
}

TEST_F(DomainUtilTest, FailedQueryIsLoggedAndRepeated) {
    FakeDirectory directory;
    directory.problem = Error{"com.apple.OpenDirectory", 2100, "The node did not answer"};
    EXPECT_EQ(DomainUtil::getUserDetails("anna"), nullptr);
    EXPECT_EQ(DomainUtil::getUserDetails("anna"), nullptr);
    EXPECT_EQ(logged("[ERROR]The node did not answer"), 2);
}

TEST_F(DomainUtilTest, NamesOfIdsAreRememberedForAMinuteAndOnlyWhenThereIsOne) {
    FakeDirectory directory;
    directory.userNames = {{501, "anna"}};
    directory.groupNames = {{501, "choir"}};
    EXPECT_EQ(DomainUtil::getUserNameFromID(501), "anna");
    EXPECT_EQ(DomainUtil::getGroupNameFromID(501), "choir");
    EXPECT_EQ(DomainUtil::getUserNameFromID(4294967295), "-1");
    EXPECT_EQ(DomainUtil::getGroupNameFromID(2147483648), "-2147483648");
    EXPECT_EQ(directory.idQueries, 4);

    directory.userNames = {{501, "renamed"}, {4294967295, "somebody"}};
    EXPECT_EQ(DomainUtil::getUserNameFromID(501), "anna");
    EXPECT_EQ(DomainUtil::getUserNameFromID(4294967295), "somebody");
    clock().advance(61s);
    EXPECT_EQ(DomainUtil::getUserNameFromID(501), "renamed");
}

TEST_F(DomainUtilTest, AddressesAndStatusesHaveTheirTexts) {
    constexpr std::uint8_t kAddress[] = {10, 0, 255, 1};
    std::uint32_t address = 0;
    std::memcpy(&address, kAddress, sizeof(address));
    EXPECT_EQ(DomainUtil::getIpAddressFromID(address), "10.0.255.1");
    EXPECT_EQ(DomainUtil::getIpAddressFromID(0), "0.0.0.0");

    EXPECT_EQ(DomainUtil::getEventTypeText(0), "success");
    EXPECT_EQ(DomainUtil::getEventTypeText(1), std::string("failure : ") + std::strerror(EPERM));
    EXPECT_EQ(DomainUtil::getEventTypeText(254), "failure: Unknown error: 254");
}

}  // namespace sentrova::testing
