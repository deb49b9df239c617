#include "core/TaskManager.h"
#include "foundation/run/NotificationCenter.h"
#include "support/AgentFixture.h"

#include <gtest/gtest.h>

namespace sentrova {
namespace {

class TaskManagerTest : public ::testing::Test, protected testing::AgentFixture {};

TEST_F(TaskManagerTest, OutputIsReadWholeAtOnceOrInPiecesAndTheStatusHas8Bits) {
    TaskManager task("/bin/sh", {"-c", "head -c 1000000 /dev/zero | tr '\\0' x; exit 200"});
    task.launchTaskSync();
    EXPECT_EQ(task.taskStatus(), -56);
    EXPECT_EQ(task.output(), Data(1'000'000, 'x'));

    TaskManager background("/bin/sh", {"-c", "echo one; echo two"});
    Data pieces;
    const auto observer = NotificationCenter::defaultCenter().addObserver(
        TaskManager::kReadCompletionNotification, [&pieces](const Notification& notification) {
            const auto piece = *notification.userInfo[TaskManager::kOutputItem].data();
            pieces.insert(pieces.end(), piece.begin(), piece.end());
        });
    background.launchTaskAsync();
    background.wait();
    EXPECT_EQ(std::string(pieces.begin(), pieces.end()), "one\ntwo\n");
}

}  // namespace
}  // namespace sentrova
