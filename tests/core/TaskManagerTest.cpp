#include "core/TaskManager.h"
#include "foundation/NotificationCenter.h"
#include "support/AgentFixture.h"

#include <string>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

class TaskManagerTest : public ::testing::Test, protected testing::AgentFixture {};

TEST_F(TaskManagerTest, OutputIsReadWholeAtOnceOrInPiecesAndTheStatusHas8Bits) {
    const std::vector<std::string> arguments = {"-c", "head -c 1000000 /dev/zero | tr '\\0' x; exit 200"};
    TaskManager task("/bin/sh", arguments);
    task.launchTaskSync();
    EXPECT_EQ(task.taskStatus(), -56);
    EXPECT_EQ(task.output(), Data(1'000'000, 'x'));

    Data pieces;
    TaskManager background("/bin/sh", arguments);
    const auto observer = NotificationCenter::defaultCenter().addObserver(
        TaskManager::kReadCompletionNotification, [&pieces](const Notification& notification) {
            const auto piece = *notification.userInfo[TaskManager::kOutputItem].data();
            pieces.insert(pieces.end(), piece.begin(), piece.end());
        });
    background.launchTaskAsync();
    background.wait();
    EXPECT_EQ(pieces, task.output());
}

}  // namespace
}  // namespace sentrova
