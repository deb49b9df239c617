#include "collection/EventCollector.h"
#include "collection/currentLoginUtility.h"
#include "core/GlobalVariables.h"
#include "foundation/formats/KeyedArchive.h"
#include "foundation/run/Current.h"
#include "service/AgentServiceHandler.h"
#include "support/AgentFixture.h"
#include "support/FaultyFileSystem.h"

#include <climits>
#include <fstream>

#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

std::optional<std::string> userAt(std::int64_t time) {
    const auto entry = currentLoginUtility::getLogonUserAtTime(time);
    return entry ? std::optional((*entry)["uid"].description()) : std::nullopt;
}

void add(const char* user, double time) {
    currentLoginUtility::addToLoginHistory({{"uid", user}}, time);
}

}  // namespace

class currentLoginUtilityTest : public ::testing::Test, protected AgentFixture {
  protected:
    // Without a console, no owner is added, and the history begins empty.
    currentLoginUtilityTest() { fs::remove(volume().console()); }

    fs::path file() { return volume().conf() / "currentLogins"; }

    // The log lines of the additions, in order, one letter each: A added, R removed a key, W written, x write failed, L
    // the second write, which always fails.
    std::string lines() const {
        std::istringstream in(log());
        std::string letters;
        for (std::string line; std::getline(in, line);) {
            for (const auto& [text, letter] : {std::pair("]adding to loginhistory ", 'A'),
                                               {"]removing key ", 'R'},
                                               {"[DEBUG]1\r", 'W'},
                                               {"[DEBUG]0\r", 'x'},
                                               {"[INFO]0\r", 'L'}}) {
                if (line.find(text) != std::string::npos) {
                    letters += letter;
                }
            }
        }
        return letters;
    }

    KeyedArchive::Content stored() {
        const auto bytes = Current<FileSystem>::get().read(file());
        const auto content = bytes ? KeyedArchive::unarchive(*bytes) : Result<KeyedArchive::Content>(bytes.error());
        return content ? *content : KeyedArchive::Content{{-1, {{"problem", content.error().description}}}};
    }
};

TEST_F(currentLoginUtilityTest, LatestEntryUpToASecondAfterTheTimeIsFound) {
    EXPECT_EQ(userAt(1000), std::nullopt);
    add("one", 100.9);
    add("two", 200);
    add("two again", 200.5);
    add("before time", -50);
    EXPECT_EQ(userAt(98), std::nullopt);
    for (const auto& [time, user] : {std::pair(99, "one"), {198, "one"}, {199, "two again"}, {INT_MAX, "two again"}}) {
        EXPECT_EQ(userAt(time), user) << time;
    }
}

TEST_F(currentLoginUtilityTest, EntriesBeforeTheLastEventAreRemovedFromMemoryAtTheNextAddition) {
    GlobalVariables::getInstance().setTimeStampOfLastEvent("50");
    add("one", 100);
    add("kept", 150);
    currentLoginUtility::flush();
    GlobalVariables::getInstance().setTimeStampOfLastEvent("150");
    EXPECT_EQ(userAt(120), "one");
    clock().advance(1s);
    add("old itself", 140);
    EXPECT_EQ(userAt(140), std::nullopt);
    EXPECT_EQ(userAt(150), "kept");
    EXPECT_EQ(lines(), "WALAWLWARRL");
    currentLoginUtility::flush();
    EXPECT_EQ(stored(), (KeyedArchive::Content{
                            {100, {{"uid", "one"}}}, {140, {{"uid", "old itself"}}}, {150, {{"uid", "kept"}}}}))
        << "the file has the entries as they were before the removal";
    GlobalVariables::getInstance().setTimeStampOfLastEvent("155");
    add("newest", 160);
    EXPECT_EQ(userAt(155), std::nullopt);
    AgentServiceHandler::end();
    EXPECT_EQ(stored(), (KeyedArchive::Content{{150, {{"uid", "kept"}}}, {160, {{"uid", "newest"}}}}));
}

TEST_F(currentLoginUtilityTest, DamagedHistoryIsReplacedOnlyByTheNextAddition) {
    std::ofstream(file()) << "bplist00 but no archive";
    currentLoginUtility::initialize();
    EXPECT_EQ(userAt(1000), std::nullopt);
    EXPECT_EQ(logged("[ERROR]Error while unarchiving current login  "), 1);
    EXPECT_EQ(fs::file_size(file()), 23U);
    add("new", 100);
    EXPECT_EQ(stored(), (KeyedArchive::Content{{100, {{"uid", "new"}}}}));

    restart();
    fs::remove(file());
    fs::create_directory(file());
    currentLoginUtility::initialize();
    EXPECT_EQ(userAt(1000), std::nullopt);
    EXPECT_EQ(logged("[ERROR]Error while reading current login "), 1);
}

TEST_F(currentLoginUtilityTest, AdditionsWithinATenthOfASecondShareAWriteAndSurviveARestart) {
    FaultyFileSystem files([](const auto& path) { return path.ends_with("/currentLogins"); });
    const auto writes = [&] { return files.calls()[FaultyFileSystem::kRename]; };
    add("one", 1);
    EXPECT_EQ(writes(), 1U) << "the first at once";
    add("two", 2);
    add("three", 3);
    EXPECT_EQ(writes(), 1U);
    clock().advance(100ms);
    ASSERT_TRUE(eventually([&] { return lines() == "WALAAWLWL"; })) << lines();
    EXPECT_EQ(writes(), 2U);
    EXPECT_EQ(stored().size(), 3U);

    add("zo\xC3\xAB", 4);
    Current<LastRead>::get().store();
    EXPECT_EQ(writes(), 3U) << "before a time is stored";
    EXPECT_EQ(stored().size(), 4U);
    currentLoginUtility::flush();
    clock().advance(1s);
    EXPECT_EQ(writes(), 3U) << "a flush leaves nothing to write";
    files.arm({.call = FaultyFileSystem::kRename, .error = ENOSPC, .number = 1});
    add("five", 5);
    EXPECT_TRUE(lines().ends_with("AWLxAL")) << lines();
    EXPECT_EQ(userAt(5), "five") << "it stays in memory";
    restart();
    currentLoginUtility::initialize();
    EXPECT_EQ(userAt(5), "zo\xC3\xAB");
}

TEST_F(currentLoginUtilityTest, ConsoleOwnerIsNotedAtTheStartAndAtEachChangeOfTheConsole) {
    volume().addLocalUser("anna", ::getuid());
    std::ofstream(volume().console()) << "";
    const auto now = clock().epochSeconds();
    currentLoginUtility::init();
    const auto first = currentLoginUtility::getLogonUserAtTime(now);
    ASSERT_TRUE(first);
    EXPECT_EQ((*first)["uid"], Value("anna"));
    EXPECT_TRUE(first->contains("gid"));
    EXPECT_EQ(currentLoginUtility::getLogonUserAtTime(now - 2), std::nullopt);

    clock().advance(10s);
    fs::permissions(volume().console(), fs::perms::owner_read);
    ASSERT_TRUE(eventually([&] { return logged("adding to loginhistory") == 2; }));
    EXPECT_EQ(logged("Login has been made"), 1);
    EXPECT_NE(log().find(std::to_string(now + 10)), std::string::npos);
    currentLoginUtility::suspend();
    EXPECT_EQ(logged("Filewatcher suspended"), 1);
}

}  // namespace sentrova::testing
