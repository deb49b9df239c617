#include "foundation/DispatchQueue.h"
#include "foundation/Mutex.h"
#include "support/ManualClock.h"

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using std::chrono::seconds;

TEST(DispatchQueueTest, BlocksRunOneAtATimeInTheirOrderWhoeverHandsThemOver) {
    DispatchQueue queue("order");
    std::vector<int> order;
    std::vector<int> expected;
    for (int i = 0; i < 500; ++i) {
        expected.push_back(i);
        if (i % 3 == 0) {
            queue.sync([&order, i] { order.push_back(i); });
        } else {
            queue.async([&order, i] { order.push_back(i); });
        }
    }
    queue.sync([] {});
    EXPECT_EQ(order, expected);

    int unguarded = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&queue, &unguarded] {
            for (int j = 0; j < 200; ++j) {
                queue.sync([&unguarded] { ++unguarded; });
                queue.async([&unguarded] { ++unguarded; });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    queue.sync([] {});
    EXPECT_EQ(unguarded, 1600);
}

TEST(DispatchQueueTest, SyncOnAnIdleQueueStaysOnTheCallersThread) {
    DispatchQueue queue("idle");
    std::thread::id ranOn;
    EXPECT_FALSE(queue.isCurrent());
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
    {
        DispatchQueue queue("faulty");
        EXPECT_THROW(queue.sync([] { throw std::out_of_range("sync"); }), std::out_of_range);
        queue.async([] { throw std::runtime_error("async"); });
        queue.async([] { throw 5; });
        bool wentOn = false;
        queue.sync([&wentOn] { wentOn = true; });
        EXPECT_TRUE(wentOn);
    }
    DispatchQueue::setExceptionHandler(nullptr);
    EXPECT_EQ(reported, "faulty: asyncfaulty: an exception without a text");
}

TEST(DispatchQueueTest, DelayedBlockRunsWhenItsTimeHasComeAndNeverOnceTheQueueIsGone) {
    testing::ManualClock clock;
    std::atomic<int> runs = 0;
    {
        DispatchQueue queue("delayed");
        queue.after(seconds(10), [&runs] { ++runs; });
        clock.advance(seconds(9));
        queue.sync([] {});
        EXPECT_EQ(runs, 0);
        clock.advance(seconds(1));
        queue.sync([] {});
        EXPECT_EQ(runs, 1);
        queue.after(seconds(10), [&runs] { ++runs; });
    }
    clock.advance(seconds(20));
    EXPECT_EQ(runs, 1);
}

TEST(DispatchQueueTest, DestructionWaitsForTheRunningBlockAndDropsTheOthers) {
    auto queue = std::make_unique<DispatchQueue>("ending");
    Semaphore begun;
    Semaphore mayEnd;
    std::atomic<bool> ended = false;
    auto held = std::make_shared<int>();
    const std::weak_ptr<int> heldToo = held;
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
