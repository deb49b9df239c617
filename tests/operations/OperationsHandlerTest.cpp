#include "operations/MainQueue.h"
#include "operations/OperationsHandler.h"
#include "support/AgentFixture.h"

#include <memory>
#include <stdexcept>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

// Executes until it is cancelled or told to complete.
class Lasting : public ConcurrentOperationAbstract {
  public:
    explicit Lasting(const char* name) : ConcurrentOperationAbstract(name) {}
    void start() override { canStart() ? started() : void(); }
    void cancel() override {
        if (name() == "stubborn") {
            throw std::runtime_error("not now");
        }
        cancelOperation();
        if (isExecuting()) {
            completeOperation();
        }
    }
};

// Stops the main queue when the queue asks whether the operation executes.
class Stopping final : public Lasting {
  public:
    explicit Stopping(MainQueue& queue) : Lasting("EventForwarder"), queue_(queue) {}
    bool isExecuting() const override {
        queue_.stop();
        return false;
    }
    void cancel() override { cancelOperation(); }

  private:
    MainQueue& queue_;
};

class OperationsHandlerTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    static std::shared_ptr<Lasting> add(OperationsHandler& handler, const char* name) {
        auto operation = std::make_shared<Lasting>(name);
        handler.addToOperationQueue(operation);
        return operation;
    }
    static bool runs(const std::shared_ptr<Lasting>& operation) {
        return testing::eventually([&] { return operation->isExecuting(); });
    }
};

TEST_F(OperationsHandlerTest, SecondOperationWithANameIsRefusedOnlyWhileTheFirstExecutes) {
    OperationsHandler handler(1, clock());
    const auto first = add(handler, "EventForwarder");
    ASSERT_TRUE(runs(first));
    const auto refused = add(handler, "EventForwarder");
    EXPECT_EQ(handler.queue().operationCount(), 1U);
    EXPECT_EQ(logged("][INFO]OperationsHandler EventForwarder cannot be added to the queue already exists\r\n"), 1);
    const auto waiting = add(handler, "Other");
    const auto same = add(handler, "Other");
    EXPECT_EQ(handler.queue().operationCount(), 3U);
    EXPECT_TRUE(handler.getTaskStatus("EventForwarder"));
    EXPECT_FALSE(handler.getTaskStatus("Other") || handler.getTaskStatus("Nobody"));
    EXPECT_EQ(logged(" operation doesnot exists\r\n"), 1);

    handler.cancelOperationWithName("Other");
    handler.cancelOperationWithName("Nobody");
    EXPECT_EQ(logged("][INFO]OperationsHandler Other has been cancelled\r\n"), 2);
    EXPECT_TRUE(waiting->isCancelled() && same->isCancelled() && !first->isCancelled());

    const auto stubborn = add(handler, "stubborn");
    const auto last = add(handler, "Last");
    handler.suspend();
    stubborn->completeOperation();
    handler.waitToFinish();
    EXPECT_TRUE(first->isCancelled() && last->isCancelled());
    EXPECT_FALSE(refused->isExecuting() || refused->isFinished());
    // An operation that is added after suspend runs.
    const auto later = add(handler, "EventForwarder");
    EXPECT_TRUE(runs(later));
    later->completeOperation();
    handler.waitToFinish();
}

TEST_F(OperationsHandlerTest, DependentOperationWaitsForTheOtherOneInAnUnlimitedQueue) {
    OperationsHandler handler(0, clock());
    const auto dependent = std::make_shared<Lasting>("realtime");
    handler.addDependency(dependent, std::make_shared<Lasting>("never added"));
    handler.addToOperationQueue(dependent);
    ASSERT_TRUE(runs(add(handler, "batch")) && runs(add(handler, "together with the batch")));
    EXPECT_FALSE(dependent->isExecuting());
    handler.suspend();
    handler.waitToFinish();
}

TEST_F(OperationsHandlerTest, OperationThatIsAddedDuringAStopIsCancelled) {
    MainQueue queue(clock());
    queue.open()->addToOperationQueue(std::make_shared<Stopping>(queue));
    const auto late = std::make_shared<Lasting>("EventForwarder");
    queue.add(late);
    EXPECT_TRUE(queue.stopAsked() && late->isCancelled());
}

}  // namespace
}  // namespace sentrova
