#include "foundation/run/OperationQueue.h"
#include "support/Eventually.h"
#include "support/ManualClock.h"
#include "support/Threading.h"

#include <atomic>
#include <future>
#include <numeric>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using testing::eventually;

// An operation whose start runs the body. It finishes when the test calls finish.
class HandOperation final : public Operation {
  public:
    using Body = std::function<void(HandOperation&)>;

    explicit HandOperation(Body body = [](HandOperation&) {}) : body_(std::move(body)) {}

    bool isFinished() const override { return finished_; }
    bool isExecuting() const override { return executing_; }
    bool isCancelled() const override { return cancelled_; }

    void start() override {
        change(kIsExecuting, executing_, true);
        body_(*this);
    }
    void cancel() override { change(kIsCancelled, cancelled_, true); }
    void finish() {
        change(kIsExecuting, executing_, false);
        change(kIsFinished, finished_, true);
    }

  protected:
    void finishFailed() override { finish(); }

  private:
    void change(const char* key, std::atomic<bool>& flag, bool value) {
        willChangeValueForKey(key);
        flag = value;
        didChangeValueForKey(key);
    }

    const Body body_;
    std::atomic<bool> finished_ = false;
    std::atomic<bool> executing_ = false;
    std::atomic<bool> cancelled_ = false;
};

auto operation(HandOperation::Body body = [](HandOperation&) {}) {
    return std::make_shared<HandOperation>(std::move(body));
}

class OperationQueueTest : public ::testing::Test {
  protected:
    testing::ManualClock clock_;
    OperationQueue queue_{clock_};
};

TEST_F(OperationQueueTest, OperationKeepsItsPlaceUntilItIsFinishedAndThenMakesRoomAtOnce) {
    queue_.setMaxConcurrentOperationCount(1);
    const auto first = operation();
    bool wasFinished = false;
    const auto second = operation([&](HandOperation& self) {
        wasFinished = first->isFinished();
        self.finish();
    });
    queue_.addOperation(first);
    queue_.addOperation(second);
    ASSERT_TRUE(eventually([&] { return first->isExecuting(); }));
    EXPECT_EQ(queue_.operations(), (std::vector<std::shared_ptr<Operation>>{first, second}));
    first->finish();
    queue_.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(wasFinished);
    EXPECT_EQ(queue_.operationCount(), 0U);
    queue_.addOperation(first);
    EXPECT_EQ(queue_.operationCount(), 0U) << "a finished operation was taken again";

    const auto third = operation();
    queue_.addOperation(third);
    queue_.addOperationWithBlock([] { ADD_FAILURE() << "a cancelled block ran"; });
    queue_.cancelAllOperations();
    ASSERT_TRUE(eventually([&] { return third->isExecuting(); }));
    third->finish();
    queue_.waitUntilAllOperationsAreFinished();

    // An operation that finishes inside the start of another one makes room at once.
    queue_.setMaxConcurrentOperationCount(2);
    const auto idle = operation();
    const auto waiting = operation(&HandOperation::finish);
    queue_.addOperation(operation([&](HandOperation& self) {
        EXPECT_TRUE(eventually([&] { return idle->isExecuting(); }));
        idle->finish();
        EXPECT_TRUE(eventually([&] { return waiting->isFinished(); }));
        self.finish();
    }));
    queue_.addOperation(idle);
    queue_.addOperation(waiting);
    queue_.waitUntilAllOperationsAreFinished();
}

TEST_F(OperationQueueTest, OperationStartsAfterAllItsDependenciesUnlessItIsCancelled) {
    for (const bool cancelled : {false, true}) {
        SCOPED_TRACE(cancelled);
        const auto first = operation();
        const auto second = operation();
        std::atomic<int> finishedBefore = -1;
        const auto dependent = operation([&](HandOperation& self) {
            finishedBefore = first->isFinished() + second->isFinished();
            self.finish();
        });
        dependent->addDependency(first);
        dependent->addDependency(second);
        for (const auto& each : {dependent, first, second}) {
            queue_.addOperation(each);
        }
        if (cancelled) {
            dependent->cancel();
            ASSERT_TRUE(eventually([&] { return dependent->isFinished(); }));
        }
        ASSERT_TRUE(eventually([&] { return first->isExecuting() && second->isExecuting(); }));
        second->finish();
        first->finish();
        queue_.waitUntilAllOperationsAreFinished();
        EXPECT_EQ(finishedBefore, cancelled ? 0 : 2);
    }
}

TEST_F(OperationQueueTest, QueueWithALimitOfOneRunsInOrderDespiteAThreadShortageAndFailures) {
    testing::Reports reports;
    queue_.setMaxConcurrentOperationCount(1);
    std::vector<int> order;
    std::vector<int> expected(300);
    std::iota(expected.begin(), expected.end(), 0);
    {
        const testing::ThreadShortage shortage;
        queue_.addOperation(operation([](HandOperation&) { throw std::runtime_error("a start's fault"); }));
        queue_.addOperationWithBlock([] { throw std::runtime_error("a block's fault"); });
        for (const int i : expected) {
            queue_.addOperationWithBlock([&order, i] { order.push_back(i); });
        }
        clock_.advance(std::chrono::seconds(4));
        EXPECT_EQ(queue_.operationCount(), 302U);
    }
    clock_.advance(std::chrono::seconds(1));
    queue_.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(order, expected);
    EXPECT_EQ(reports.texts(),
              (std::vector<std::string>{"thread: No thread could be started; the work is queued and retried",
                                        ": a start's fault", "BlockOperation: a block's fault"}));
}

TEST_F(OperationQueueTest, ManyThreadsNeverExceedTheLimitAndLoseNothing) {
    queue_.setMaxConcurrentOperationCount(3);
    std::atomic<int> running = 0;
    std::atomic<int> tooMany = 0;
    std::atomic<int> ended = 0;
    std::vector<std::future<void>> adders;
    for (int i = 0; i < 6; ++i) {
        adders.push_back(std::async(std::launch::async, [&] {
            for (int j = 0; j < 50; ++j) {
                const auto added = operation([&](HandOperation& self) {
                    tooMany += ++running > 3;
                    --running;
                    ++ended;
                    self.finish();
                });
                queue_.addOperation(added);
                if (j % 7 == 0) {
                    added->cancel();
                }
            }
        }));
    }
    adders.clear();
    queue_.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(ended, 300);
    EXPECT_EQ(tooMany, 0);
    EXPECT_EQ(queue_.operationCount(), 0U);
}

TEST_F(OperationQueueTest, DestructionWaitsForRunningOperationsAndDropsTheRestEvenInsideItsOwnBlock) {
    auto queue = std::make_shared<OperationQueue>(clock_);
    queue->setMaxConcurrentOperationCount(1);
    Semaphore begun;
    Semaphore mayEnd;
    std::atomic<bool> ended = false;
    auto dropped = operation();
    const std::weak_ptr<HandOperation> droppedToo = dropped;
    queue->addOperation(operation([&](HandOperation&) {
        begun.signal();
        mayEnd.wait();
        ended = true;
    }));
    queue->addOperation(std::move(dropped));
    begun.wait();
    const auto opener = std::async(std::launch::async, [&mayEnd] { mayEnd.signal(); });
    queue.reset();
    EXPECT_TRUE(ended);
    EXPECT_TRUE(droppedToo.expired());

    queue = std::make_shared<OperationQueue>(clock_);
    queue->addOperationWithBlock([&, last = std::make_shared<std::shared_ptr<OperationQueue>>(queue)] {
        ASSERT_TRUE(eventually([&last] { return last->use_count() == 1; }));
        last->reset();
        mayEnd.signal();
    });
    queue.reset();
    mayEnd.wait();
}

}  // namespace
}  // namespace sentrova
