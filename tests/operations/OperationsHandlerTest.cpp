#include "core/Logger.h"
#include "operations/OperationsHandler.h"
#include "support/AgentFixture.h"

#include <atomic>
#include <memory>
#include <string>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

// Runs from its start until it is cancelled or told to complete.
class Lasting final : public ConcurrentOperationAbstract {
  public:
    explicit Lasting(const char* name) : ConcurrentOperationAbstract(name) {}
    void start() override {
        if (canStart()) {
            started();
        }
    }
    void cancel() override {
        cancelOperation();
        if (isExecuting()) {
            completeOperation();
        }
    }
};

class OperationsHandlerTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    OperationsHandlerTest() {
        // As in the agent the log is complete before there are threads.
        Logger::getInstance();
    }
    static std::shared_ptr<Lasting> add(OperationsHandler& handler, const char* name) {
        auto operation = std::make_shared<Lasting>(name);
        handler.addToOperationQueue(operation);
        return operation;
    }
    static bool runs(const std::shared_ptr<Lasting>& operation) {
        return eventually([&] { return operation->isExecuting(); });
    }
};

TEST_F(OperationsHandlerTest, SecondOperationOfANameIsRefusedOnlyWhileTheFirstExecutes) {
    OperationsHandler handler(1);
    const auto first = add(handler, "EventForwarder");
    ASSERT_TRUE(runs(first));
    const auto refused = add(handler, "EventForwarder");
    EXPECT_EQ(handler.queue().operationCount(), 1U);
    EXPECT_EQ(logged("][INFO]OperationsHandler EventForwarder cannot be added to the queue already exists\r\n"), 1);
    const auto waiting = add(handler, "Other");
    const auto same = add(handler, "Other");
    EXPECT_EQ(handler.queue().operationCount(), 3U);
    EXPECT_EQ(logged("][INFO]OperationsHandler EventForwarder has been added to the queue\r\n"), 1);
    EXPECT_EQ(logged("][INFO]OperationsHandler Other has been added to the queue\r\n"), 2);

    EXPECT_TRUE(handler.getTaskStatus("EventForwarder"));
    EXPECT_FALSE(handler.getTaskStatus("Other"));
    EXPECT_EQ(logged("doesnot exists"), 0);
    EXPECT_FALSE(handler.getTaskStatus("Nobody"));
    EXPECT_EQ(logged("][ERROR]Nobody operation doesnot exists\r\n"), 1);
    handler.countOfOperationsInQueue();
    EXPECT_EQ(logged("][DEBUG]operations count 3\r\n"), 1);

    handler.cancelOperationWithName("Other");
    EXPECT_EQ(logged("][INFO]operations count (\n"), 1);
    EXPECT_EQ(logged("][INFO]OperationsHandler Other has been cancelled\r\n"), 2);
    EXPECT_TRUE(waiting->isCancelled() && same->isCancelled() && !first->isCancelled());
    handler.cancelOperationWithName("Nobody");
    EXPECT_EQ(logged("has been cancelled"), 2);

    handler.suspend();
    handler.waitToFinish();
    EXPECT_TRUE(first->isCancelled());
    EXPECT_FALSE(refused->isExecuting() || refused->isFinished());
    // What is added after a suspend runs.
    const auto later = add(handler, "EventForwarder");
    EXPECT_TRUE(runs(later));
    later->completeOperation();
    handler.waitToFinish();
}

TEST_F(OperationsHandlerTest, WithoutALimitOperationsRunTogether) {
    for (const int maximum : {0, -1}) {
        OperationsHandler handler(maximum);
        const std::shared_ptr<Lasting> all[] = {add(handler, "a"), add(handler, "b"), add(handler, "c")};
        for (const auto& each : all) {
            EXPECT_TRUE(runs(each));
        }
        handler.suspend();
        handler.waitToFinish();
    }
}

TEST_F(OperationsHandlerTest, FirstOfTwoDependsOnTheSecond) {
    OperationsHandler handler(-1);
    const auto dependent = std::make_shared<Lasting>("realtime");
    const auto batch = std::make_shared<Lasting>("batch");
    std::atomic<int> batchWasFinished = -1;
    auto observation = dependent->observe(Operation::kIsExecuting,
                                          [&](const KeyValueChange&) { batchWasFinished = batch->isFinished(); });
    handler.addDependency(dependent, batch);
    handler.addToOperationQueue(dependent);
    handler.addToOperationQueue(batch);
    ASSERT_TRUE(runs(batch));
    batch->completeOperation();
    ASSERT_TRUE(eventually([&] { return batchWasFinished != -1; }));
    observation.reset();
    dependent->completeOperation();
    handler.waitToFinish();
    EXPECT_EQ(batchWasFinished, 1);
}

}  // namespace
}  // namespace sentrova
