#include "foundation/DispatchQueue.h"
#include "foundation/Mutex.h"
#include "support/ManualClock.h"

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using std::chrono::seconds;

TEST(DispatchQueueTest, BlocksRunOneAtATimeInTheOrderOfEachThatHandsThemOver) {
    constexpr int kThreads = 4;
    constexpr int kBlocks = 300;
    DispatchQueue queue("order");
    std::vector<std::vector<int>> orders(kThreads);
    std::vector<int> expected;
    int unguarded = 0;
    std::vector<std::thread> threads;
    for (auto& order : orders) {
        threads.emplace_back([&queue, &unguarded, &order] {
            for (int i = 0; i < kBlocks; ++i) {
                const auto block = [&unguarded, &order, i] {
                    ++unguarded;
                    order.push_back(i);
                };
                i % 3 == 0 ? queue.sync(block) : queue.async(block);
            }
        });
    }
    for (int i = 0; i < kBlocks; ++i) {
        expected.push_back(i);
    }
    for (auto& thread : threads) {
        thread.join();
    }
    queue.sync([] {});
    EXPECT_EQ(unguarded, kThreads * kBlocks);
    EXPECT_EQ(orders, std::vector(kThreads, expected));
}

TEST(DispatchQueueTest, SyncOnAnIdleQueueStaysOnTheCallersThread) {
    DispatchQueue queue("idle");
    std::thread::id ranOn;
    queue.sync([&] {
        ranOn = std::this_thread::get_id();
        EXPECT_TRUE(queue.isCurrent());
        EXPECT_THROW(queue.sync([] {}), std::logic_error);
    });
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    queue.async([&] {
        ranOn = std::this_thread::get_id();
        EXPECT_TRUE(queue.isCurrent());
    });
    queue.sync([] {});
    EXPECT_NE(ranOn, std::this_thread::get_id());
    EXPECT_FALSE(queue.isCurrent());
}

TEST(DispatchQueueTest, ExceptionsComeOutOfSyncAndAreReportedFromAsync) {
    static std::string reported;
    reported.clear();
    DispatchQueue::setExceptionHandler([](std::string_view where, std::string_view what) {
        reported += std::string(where) + ": " + std::string(what);
    });
    DispatchQueue queue("faulty");
    EXPECT_THROW(queue.sync([] { throw std::out_of_range("sync"); }), std::out_of_range);
    queue.async([] { throw std::runtime_error("async"); });
    queue.async([] { throw 5; });
    queue.sync([] { reported += "; and on"; });
    DispatchQueue::setExceptionHandler(nullptr);
    EXPECT_EQ(reported, "faulty: asyncfaulty: an exception without a text; and on");
}

TEST(DispatchQueueTest, DelayedBlockRunsWhenItsTimeHasComeAndNeverOnceTheQueueIsGone) {
    testing::ManualClock clock;
    std::atomic<int> runs = 0;
    {
        DispatchQueue queue("delayed");
        queue.after(seconds(10), [&runs] { ++runs; });
        for (const auto& [further, ran] : {std::pair(9, 0), std::pair(1, 1)}) {
            clock.advance(seconds(further));
            queue.sync([] {});
            EXPECT_EQ(runs, ran);
        }
        queue.after(seconds(10), [&runs] { ++runs; });
    }
    clock.advance(seconds(20));
    EXPECT_EQ(runs, 1);
}

TEST(DispatchQueueTest, ClosingLetsWhoWaitsInSyncHaveHisTurn) {
    // Each time the end comes at another moment.
    for (int i = 0; i < 500; ++i) {
        DispatchQueue queue("closing");
        std::atomic<int> runs = 0;
        queue.async([] { std::this_thread::yield(); });
        queue.async([] {});
        std::thread waiting([&] { queue.sync([&runs] { ++runs; }); });
        queue.close();
        queue.sync([&runs] { ++runs; });
        waiting.join();
        EXPECT_EQ(runs, 2);
    }
}

TEST(DispatchQueueTest, DestructionWaitsForTheRunningBlockAndDropsTheOthers) {
    auto queue = std::make_unique<DispatchQueue>("ending");
    Semaphore begun;
    Semaphore mayEnd;
    std::atomic<bool> ended = false;
    queue->async([&] {
        begun.signal();
        mayEnd.wait();
        ended = true;
    });
    begun.wait();
    std::thread ender([&queue] { queue.reset(); });
    mayEnd.signal();
    ender.join();
    EXPECT_TRUE(ended);

    queue = std::make_unique<DispatchQueue>("own block");
    Semaphore gone;
    auto held = std::make_shared<int>();
    const std::weak_ptr<int> heldToo = held;
    // The block holds the last reference to its queue, and what waits behind it goes with the queue.
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
