#include "core/TaskManager.h"
#include "foundation/NotificationCenter.h"
#include "support/AgentFixture.h"

#include <string>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

class TaskManagerTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    static std::string text(const Data& data) { return {data.begin(), data.end()}; }
};

TEST_F(TaskManagerTest, SynchronousRunGivesTheWholeOutputAndTheStatusIn8Bits) {
    struct Case {
        const char* script;
        int status;
        std::string output;
    };
    const Case cases[] = {
        {"echo out; exit 3", 3, "out\n"},
        {"exit 200", -56, ""},
        {"head -c 1000000 /dev/zero | tr '\\0' x", 0, std::string(1'000'000, 'x')},
    };
    for (const auto& [script, status, output] : cases) {
        SCOPED_TRACE(script);
        TaskManager task("/bin/sh", {"-c", script});
        task.launchTaskSync();
        EXPECT_EQ(task.taskStatus(), status);
        EXPECT_EQ(text(task.output()), output);
    }
    // A tool of the system lies on the volume.
    volume().setDirectoryTool("bound", 4);
    TaskManager tool("/usr/sbin/dsconfigad", {"-show"});
    tool.launchTaskSync();
    EXPECT_EQ(tool.taskStatus(), 4);
    EXPECT_EQ(text(tool.output()), "bound\n");
}

TEST_F(TaskManagerTest, BackgroundRunTellsItsOutputByNotification) {
    std::string output;
    int ends = 0;
    TaskManager task("/bin/sh", {"-c", "echo one; echo two"});
    const auto observer = NotificationCenter::defaultCenter().addObserver(
        TaskManager::kReadCompletionNotification, [&](const Notification& notification) {
            EXPECT_EQ(notification.object, &task);
            const auto* piece = notification.userInfo[TaskManager::kOutputItem].data();
            ASSERT_NE(piece, nullptr);
            output += text(*piece);
            ends += piece->empty() ? 1 : 0;
        });
    task.launchTaskAsync();
    task.wait();
    EXPECT_EQ(output, "one\ntwo\n");
    EXPECT_EQ(ends, 1);
}

}  // namespace
}  // namespace sentrova
