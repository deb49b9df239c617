#include "collection/DomainUtil.h"
#include "platform/Directory.h"
#include "support/AgentFixture.h"

#include <fstream>

#include <gtest/gtest.h>

namespace sentrova::testing {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

// A directory with the users and ids of the test. Records its queries.
class FakeDirectory final : public platform::Directory {
  public:
    std::optional<std::string> userName(std::uint32_t id) override { return nameIn(userNames, id); }
    std::optional<std::string> groupName(std::uint32_t id) override { return nameIn(groupNames, id); }
    Result<std::vector<platform::DirectoryRecord>> usersNamed(const std::string& name) override {
        queries.push_back(name);
        return problem ? Result<std::vector<platform::DirectoryRecord>>(*problem) : records;
    }

    std::map<std::uint32_t, std::string> userNames;
    std::map<std::uint32_t, std::string> groupNames;
    // The result of a query by name.
    std::vector<platform::DirectoryRecord> records;
    std::optional<Error> problem;

    // The queried names, and the number of queries per id.
    std::vector<std::string> queries;
    int idQueries = 0;

  private:
    std::optional<std::string> nameIn(const std::map<std::uint32_t, std::string>& names, std::uint32_t id) {
        ++idQueries;
        return names.contains(id) ? std::optional(names.at(id)) : std::nullopt;
    }
};

}  // namespace

class DomainUtilTest : public ::testing::Test, protected AgentFixture {
  protected:
    // The number of runs of the directory tool since the last call. Fails if a run had wrong arguments.
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

TEST_F(DomainUtilTest, NothingIsRememberedUntilSetDomainNameIsCalled) {
    EXPECT_EQ(DomainUtil::getDomainName(), "corp.example.com");
    EXPECT_EQ(DomainUtil::getDomainName(), "corp.example.com");
    EXPECT_EQ(DomainUtil::getHostName(), "mac-042");
    EXPECT_EQ(runs(), 3);
    DomainUtil::setDomainName("configured.example.com");
    EXPECT_EQ(DomainUtil::getDomainName(), "configured.example.com");
    EXPECT_EQ(runs(), 0);
    // The domain that the tool reports replaces the configured one.
    EXPECT_EQ(DomainUtil::getHostName(), "mac-042");
    EXPECT_EQ(DomainUtil::getDomainName(), "corp.example.com");
    EXPECT_EQ(DomainUtil::getHostName(), "mac-042");
    EXPECT_EQ(runs(), 1);
    EXPECT_EQ(logged("hostname is returned mac-042"), 2);
}

TEST_F(DomainUtilTest, HostNameIsTheComputerAccountFromACompleteToolAnswer) {
    for (const auto& [account, host] : {std::pair("mac$", "mac"), {"mac", "mac"}, {"m$c", "m$c"}, {"m$$", "m$"}}) {
        volume().bindTo("corp.example.com", account);
        EXPECT_EQ(DomainUtil::getHostName(), host);
    }
    const std::string head = "<plist version=\"1.0\"><dict><key>General Info</key>";
    const std::pair<std::string, int> unusable[] = {
        {head + "<dict><key>Computer Account</key><string>mac$</string></dict></dict></plist>", 1},
        {head + "<string>none</string></dict></plist>", 0},
        {"no property list", 0},
        {"", 0},
    };
    DomainUtil::setDomainName("configured.example.com");
    for (const auto& [output, status] : unusable) {
        volume().setDirectoryTool(output, status);
        runs();
        EXPECT_EQ(DomainUtil::getHostName(), std::nullopt) << output;
        EXPECT_EQ(DomainUtil::getHostName(), std::nullopt) << output;
        EXPECT_EQ(runs(), 2) << output << " is asked for again";
    }
    fs::remove(volume().volume() / "usr/sbin/dsconfigad");
    EXPECT_EQ(DomainUtil::getHostName(), std::nullopt) << "no tool at all";
}

TEST_F(DomainUtilTest, UserDetailsAreQueriedUntilTheUserIsKnown) {
    FakeDirectory directory;
    host().otherDirectory = &directory;
    restart();
    EXPECT_EQ(DomainUtil::getUserDetails("anna"), nullptr);
    directory.problem = Error{"com.apple.OpenDirectory", 2100, "The node did not answer"};
    EXPECT_EQ(DomainUtil::getUserDetails("anna"), nullptr);
    EXPECT_EQ(logged("[ERROR]The node did not answer"), 1);
    directory.problem.reset();

    directory.records = {
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
    EXPECT_EQ(directory.queries, std::vector<std::string>(3, "anna"));
}

TEST_F(DomainUtilTest, NewUserIsFoundByIdAndByName) {
    const auto users = volume().volume() / "var/db/dslocal/nodes/Default/users";
    volume().addLocalUser("lars", 502);
    EXPECT_EQ(DomainUtil::getUserNameFromID(501), "501");
    EXPECT_EQ(DomainUtil::getUserDetails("anna"), nullptr);
    const auto before = fs::last_write_time(users);
    volume().addLocalUser("anna", 501);
    fs::last_write_time(users, before + 1s);
    clock().advance(1s);
    EXPECT_EQ(DomainUtil::getUserNameFromID(501), "anna");
    EXPECT_TRUE(DomainUtil::getUserDetails("anna"));
}

TEST_F(DomainUtilTest, NamesOfIdsAreRememberedForAMinuteAndTheirAbsenceForASecond) {
    FakeDirectory directory;
    host().otherDirectory = &directory;
    restart();
    directory.userNames = {{501, "anna"}};
    directory.groupNames = {{501, "choir"}};
    EXPECT_EQ(DomainUtil::getUserNameFromID(501), "anna");
    EXPECT_EQ(DomainUtil::getGroupNameFromID(501), "choir");
    EXPECT_EQ(DomainUtil::getUserNameFromID(4294967294), "-2");
    EXPECT_EQ(DomainUtil::getGroupNameFromID(2147483648), "-2147483648");
    EXPECT_EQ(directory.idQueries, 4);

    directory.userNames = {{501, "renamed"}, {4294967294, "nobody"}, {4294967295, "somebody"}};
    clock().advance(999ms);
    EXPECT_EQ(DomainUtil::getUserNameFromID(4294967294), "-2");
    EXPECT_EQ(DomainUtil::getUserNameFromID(4294967295), "-1") << "unset, and never looked up";
    EXPECT_EQ(directory.idQueries, 4);
    clock().advance(1ms);
    EXPECT_EQ(DomainUtil::getUserNameFromID(4294967294), "nobody");
    EXPECT_EQ(DomainUtil::getUserNameFromID(501), "anna");
    clock().advance(60s);
    EXPECT_EQ(DomainUtil::getUserNameFromID(501), "renamed");
}

}  // namespace sentrova::testing
