#include "foundation/run/DispatchQueue.h"
#include "foundation/run/Mutex.h"
#include "support/ManualClock.h"
#include "support/Threading.h"

#include <atomic>
#include <future>
#include <numeric>
#include <stdexcept>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using std::chrono::seconds;

class DispatchQueueTest : public ::testing::Test {
  protected:
    testing::ManualClock clock_;
};

TEST_F(DispatchQueueTest, BlocksRunOneAtATimeInTheOrderInWhichEachThreadQueuedThem) {
    constexpr int kThreads = 4;
    constexpr int kBlocks = 300;
    DispatchQueue queue("order", clock_);
    std::vector<std::vector<int>> orders(kThreads);
    std::vector<int> expected(kBlocks);
    std::iota(expected.begin(), expected.end(), 0);
    int unguarded = 0;
    std::vector<std::future<void>> threads;
    for (auto& order : orders) {
        threads.push_back(std::async(std::launch::async, [&] {
            for (const int i : expected) {
                const auto block = [&unguarded, &order, i] {
                    ++unguarded;
                    order.push_back(i);
                };
                i % 3 == 0 ? queue.sync(block) : queue.async(block);
            }
        }));
    }
    threads.clear();
    queue.sync([] {});
    EXPECT_EQ(unguarded, kThreads * kBlocks);
    EXPECT_EQ(orders, std::vector(kThreads, expected));
}

TEST_F(DispatchQueueTest, SyncOnAnIdleQueueStaysOnTheCallersThreadAndThrowsWhatAsyncReports) {
    testing::Reports reports;
    DispatchQueue queue("idle", clock_);
    std::thread::id ranOn;
    const auto block = [&] {
        ranOn = std::this_thread::get_id();
        EXPECT_TRUE(queue.isCurrent());
        EXPECT_THROW(queue.sync([] {}), std::logic_error);
        throw std::out_of_range("fault");
    };
    EXPECT_THROW(queue.sync(block), std::out_of_range);
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    queue.async(block);
    queue.async([] { throw 5; });
    bool wentOn = false;
    queue.sync([&wentOn] { wentOn = true; });
    EXPECT_TRUE(wentOn);
    EXPECT_NE(ranOn, std::this_thread::get_id());
    EXPECT_FALSE(queue.isCurrent());
    EXPECT_EQ(reports.texts(), (std::vector<std::string>{"idle: fault", "idle: an exception without a text"}));
}

TEST_F(DispatchQueueTest, DelayedBlockRunsWhenDueAndNeverAfterTheQueueIsDestroyed) {
    std::atomic<int> runs = 0;
    {
        DispatchQueue queue("delayed", clock_);
        queue.after(seconds(10), [&runs] { ++runs; });
        for (const auto& [further, ran] : {std::pair(9, 0), std::pair(1, 1)}) {
            clock_.advance(seconds(further));
            queue.sync([] {});
            EXPECT_EQ(runs, ran);
        }
        queue.after(seconds(10), [&runs] { ++runs; });
    }
    clock_.advance(seconds(20));
    EXPECT_EQ(runs, 1);
}

TEST_F(DispatchQueueTest, BlocksKeepTheirOrderWhileNoThreadCanBeStarted) {
    testing::Reports reports;
    DispatchQueue queue("short of a thread", clock_);
    DispatchQueue other("the same, and nobody waits", clock_);
    std::string order;
    Semaphore ran;
    {
        const testing::ThreadShortage shortage;
        queue.async([&order] { order += 'a'; });
        queue.async([&order] { order += 'b'; });
        other.async([&ran] { ran.signal(); });
        clock_.advance(seconds(4));
        EXPECT_EQ(order, "");
    }
    queue.sync([&order] { order += 'c'; });
    EXPECT_EQ(order, "abc");
    clock_.advance(seconds(1));
    ran.wait();
    EXPECT_EQ(reports.texts().size(), 1U);
}

TEST_F(DispatchQueueTest, CapturedObjectMayUseTheQueueWhenItIsDestroyed) {
    DispatchQueue queue("captured", clock_);
    Semaphore ran;
    const auto useQueue = [&](void*) { queue.async([&ran] { ran.signal(); }); };
    queue.async([last = std::shared_ptr<void>(nullptr, useQueue)] {});
    ran.wait();
}

TEST_F(DispatchQueueTest, SyncCallsThatAlreadyWaitStillRunWhenTheQueueCloses) {
    // The queue closes at a different moment in each round.
    for (int i = 0; i < 500; ++i) {
        DispatchQueue queue("closing", clock_);
        std::atomic<int> runs = 0;
        queue.async([] { std::this_thread::yield(); });
        queue.async([] {});
        const auto waiting = std::async(std::launch::async, [&] { queue.sync([&runs] { ++runs; }); });
        queue.close();
        queue.sync([&runs] { ++runs; });
        waiting.wait();
        EXPECT_EQ(runs, 2);
    }
}

TEST_F(DispatchQueueTest, DestructionWaitsForTheRunningBlockAndDropsTheOthers) {
    auto queue = std::make_unique<DispatchQueue>("ending", clock_);
    Semaphore begun;
    Semaphore mayEnd;
    std::atomic<bool> ended = false;
    queue->async([&] {
        begun.signal();
        mayEnd.wait();
        ended = true;
    });
    begun.wait();
    const auto opener = std::async(std::launch::async, [&mayEnd] { mayEnd.signal(); });
    queue.reset();
    EXPECT_TRUE(ended);

    queue = std::make_unique<DispatchQueue>("own block", clock_);
    Semaphore gone;
    auto held = std::make_shared<int>();
    const std::weak_ptr<int> heldToo = held;
    // The running block holds the last reference to its queue. The block behind it is dropped with the queue.
    queue->async([&gone, &begun, last = std::make_shared<std::unique_ptr<DispatchQueue>>(), &queue] {
        begun.wait();
        *last = std::move(queue);
        last->reset();
        gone.signal();
    });
    queue->async([held = std::move(held)] {});
    begun.signal();
    gone.wait();
    EXPECT_TRUE(heldToo.expired());
}

}  // namespace
}  // namespace sentrova
