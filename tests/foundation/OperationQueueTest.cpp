#include "foundation/DispatchQueue.h"
#include "foundation/OperationQueue.h"
#include "support/AgentFixture.h"

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

constexpr auto eventually = testing::AgentFixture::eventually;

// Runs its body inside start, and ends when it is told to.
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
    OperationQueue queue_;
};

TEST_F(OperationQueueTest, OperationWhoseStartReturnedHoldsItsPlaceUntilItIsFinished) {
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
}

TEST_F(OperationQueueTest, OperationStartsAfterAllThatItDependsOnUnlessItIsCancelled) {
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

TEST_F(OperationQueueTest, LimitOfOneRunsBlocksInTheirOrderAlsoAfterOneThatThrows) {
    static std::string reported;
    DispatchQueue::setExceptionHandler([](std::string_view, std::string_view what) { reported = what; });
    queue_.setMaxConcurrentOperationCount(1);
    queue_.addOperationWithBlock([] { throw std::runtime_error("a block's own fault"); });
    std::vector<int> order;
    std::vector<int> expected;
    for (int i = 0; i < 300; ++i) {
        queue_.addOperationWithBlock([&order, i] { order.push_back(i); });
        expected.push_back(i);
    }
    queue_.waitUntilAllOperationsAreFinished();
    DispatchQueue::setExceptionHandler(nullptr);
    EXPECT_EQ(order, expected);
    EXPECT_EQ(reported, "a block's own fault");
}

TEST_F(OperationQueueTest, ManyThreadsNeverExceedTheLimitAndLoseNothing) {
    queue_.setMaxConcurrentOperationCount(3);
    std::atomic<int> running = 0;
    std::atomic<int> most = 0;
    std::atomic<int> ended = 0;
    std::vector<std::thread> adders;
    for (int i = 0; i < 6; ++i) {
        adders.emplace_back([&] {
            for (int j = 0; j < 50; ++j) {
                const auto added = operation([&](HandOperation& self) {
                    const int now = ++running;
                    for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
                    }
                    --running;
                    ++ended;
                    self.finish();
                });
                queue_.addOperation(added);
                if (j % 7 == 0) {
                    added->cancel();
                }
            }
        });
    }
    for (auto& adder : adders) {
        adder.join();
    }
    queue_.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(ended, 300);
    EXPECT_LE(most, 3);
    EXPECT_EQ(queue_.operationCount(), 0U);
}

TEST_F(OperationQueueTest, OperationEndedInsideTheStartOfAnotherMakesRoomAtOnce) {
    queue_.setMaxConcurrentOperationCount(2);
    const auto idle = operation();
    const auto waiting = operation([](HandOperation& self) { self.finish(); });
    bool madeRoom = false;
    const auto busy = operation([&](HandOperation& self) {
        madeRoom = eventually([&] { return idle->isExecuting(); });
        idle->finish();
        madeRoom = madeRoom && eventually([&] { return waiting->isFinished(); });
        self.finish();
    });
    for (const auto& each : {busy, idle, waiting}) {
        queue_.addOperation(each);
    }
    queue_.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(madeRoom);
}

TEST(OperationQueueEndTest, DestructionWaitsForWhatRunsAndDropsTheRest) {
    auto queue = std::make_unique<OperationQueue>();
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
    std::thread opener([&mayEnd] { mayEnd.signal(); });
    queue.reset();
    EXPECT_TRUE(ended);
    EXPECT_TRUE(droppedToo.expired());
    opener.join();
}

TEST(OperationQueueEndTest, QueueMayGoInsideItsOwnBlock) {
    auto queue = std::make_shared<OperationQueue>();
    Semaphore gone;
    queue->setMaxConcurrentOperationCount(1);
    queue->addOperationWithBlock([&, last = std::make_shared<std::shared_ptr<OperationQueue>>(queue)] {
        ASSERT_TRUE(eventually([&last] { return last->use_count() == 1; }));
        last->reset();
        gone.signal();
    });
    queue.reset();
    gone.wait();
}

}  // namespace
}  // namespace sentrova
