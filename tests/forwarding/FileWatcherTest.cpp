#include "forwarding/FileWatcher.h"
#include "support/AgentFixture.h"

#include <atomic>
#include <fstream>

#include <gtest/gtest.h>

namespace sentrova::testing {

namespace fs = std::filesystem;

class FileWatcherTest : public ::testing::Test, protected AgentFixture {
  protected:
    void changeMode(fs::perms mode) { fs::permissions(volume().console(), mode); }
    static std::ptrdiff_t openDescriptors() {
        return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
    }

    std::atomic<int> calls_ = 0;
};

TEST_F(FileWatcherTest, PathThatCannotBeOpenedGivesNoWatcher) {
    EXPECT_EQ(FileWatcher::initWithPath("/dev/missing", [] {}), nullptr);
}

TEST_F(FileWatcherTest, ChangeOfAttributesIsToldAndWritingIsNot) {
    const auto watcher = FileWatcher::initWithPath("/dev/console", [this] { ++calls_; });
    ASSERT_TRUE(watcher);
    EXPECT_EQ(watcher->watchedPath(), "/dev/console");
    ASSERT_TRUE(watcher->startListening());
    std::ofstream(volume().console(), std::ios::app) << "text";
    changeMode(fs::perms::owner_read);
    ASSERT_TRUE(eventually([this] { return calls_ == 1; }));
    std::ofstream(volume().console(), std::ios::app) << "text";
    changeMode(fs::perms::owner_all);
    EXPECT_TRUE(eventually([this] { return calls_ == 2; }));
    EXPECT_EQ(calls_, 2);
}

TEST_F(FileWatcherTest, SuspendedWatcherIsSilentForGood) {
    const auto before = openDescriptors();
    const auto watcher = FileWatcher::initWithPath("/dev/console", [this] { ++calls_; });
    ASSERT_TRUE(watcher && watcher->startListening());
    watcher->suspend();
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_FALSE(watcher->startListening());
    changeMode(fs::perms::owner_read);
    // Another watcher of the same file hears of the change after the first would have.
    std::atomic<int> others = 0;
    const auto other = FileWatcher::initWithPath("/dev/console", [&others] { ++others; });
    ASSERT_TRUE(other && other->startListening());
    changeMode(fs::perms::owner_all);
    EXPECT_TRUE(eventually([&others] { return others > 0; }));
    EXPECT_EQ(calls_, 0);
    EXPECT_EQ(logged("[INFO]Filewatcher suspended"), 1);
}

}  // namespace sentrova::testing
