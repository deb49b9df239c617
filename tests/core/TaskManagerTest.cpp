#include "core/TaskManager.h"
#include "support/AgentFixture.h"

#include <gtest/gtest.h>

namespace sentrova {
namespace {

class TaskManagerTest : public ::testing::Test, protected testing::AgentFixture {};

TEST_F(TaskManagerTest, OutputIsReadWholeAndTheStatusHas8Bits) {
    TaskManager task("/bin/sh", {"-c", "head -c 1000000 /dev/zero | tr '\\0' x; exit 200"});
    task.launchTaskSync();
    EXPECT_EQ(task.taskStatus(), -56);
    EXPECT_EQ(task.output(), Data(1'000'000, 'x'));
}

}  // namespace
}  // namespace sentrova
