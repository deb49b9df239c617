#include "operations/TaskRegistry.h"

#include <gtest/gtest.h>

namespace sentrova {
namespace {

TEST(TaskRegistryTest, MethodsRunByTheNamesOfTheirClassAndThemselves) {
    int runs = 0;
    const TaskRegistry::Registration registration("TaskRegistryTest", "run", [&runs] { ++runs; });
    EXPECT_EQ(TaskRegistry::run("TaskRegistryTest", "run"), TaskRegistry::Outcome::ran);
    EXPECT_EQ(TaskRegistry::run("TaskRegistryTest", "walk"), TaskRegistry::Outcome::unknownMethod);
    EXPECT_EQ(TaskRegistry::run("NobodysClass", "run"), TaskRegistry::Outcome::unknownClass);
    EXPECT_EQ(TaskRegistry::run("", ""), TaskRegistry::Outcome::unknownClass);
    EXPECT_EQ(runs, 1);
    // What the task list of an installation names is there.
    for (const auto& [className, selector] :
         {std::pair("EventCollectionSchedule", "walk"), {"ServerCommunicator", "walk"}, {"ScheduleHandler", "walk"}}) {
        EXPECT_EQ(TaskRegistry::run(className, selector), TaskRegistry::Outcome::unknownMethod) << className;
    }
}

}  // namespace
}  // namespace sentrova
