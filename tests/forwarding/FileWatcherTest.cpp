#include "forwarding/FileWatcher.h"
#include "support/AgentFixture.h"
#include "support/Footprint.h"

#include <atomic>
#include <fstream>

#include <gtest/gtest.h>

namespace sentrova::testing {

namespace fs = std::filesystem;

class FileWatcherTest : public ::testing::Test, protected AgentFixture {};

TEST_F(FileWatcherTest, AttributeChangesAreReportedUntilSuspensionAndWritesAreNot) {
    EXPECT_EQ(FileWatcher::initWithPath("/dev/missing", [] {}), nullptr);
    const auto before = Footprint().descriptors;
    std::atomic<int> calls[2] = {};
    const auto suspended = FileWatcher::initWithPath("/dev/console", [&calls] { ++calls[0]; });
    ASSERT_TRUE(suspended && suspended->startListening());
    suspended->suspend();
    EXPECT_EQ(Footprint().descriptors, before);
    EXPECT_FALSE(suspended->startListening());
    // A second watcher, which is notified after the first one would have been.
    const auto watcher = FileWatcher::initWithPath("/dev/console", [&calls] { ++calls[1]; });
    ASSERT_TRUE(watcher && watcher->startListening());
    for (int change = 1; change <= 2; ++change) {
        std::ofstream(volume().console(), std::ios::app) << "text";
        fs::permissions(volume().console(), change == 1 ? fs::perms::owner_read : fs::perms::owner_all);
        ASSERT_TRUE(eventually([&] { return calls[1] >= change; }));
        EXPECT_EQ(calls[1], change);
    }
    // When the newer watcher has reported a change, the others have reported all earlier ones.
    std::atomic<int> fence = 0;
    const auto youngest = FileWatcher::initWithPath("/dev/console", [&fence] { ++fence; });
    ASSERT_TRUE(youngest && youngest->startListening());
    fs::permissions(volume().console(), fs::perms::owner_read);
    ASSERT_TRUE(eventually([&] { return fence > 0 && calls[1] >= 3; }));
    EXPECT_EQ(calls[1], 3) << "writing is no such change";
    EXPECT_EQ(calls[0], 0);
}

}  // namespace sentrova::testing
