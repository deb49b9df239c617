#include "foundation/DispatchQueue.h"
#include "foundation/Mutex.h"
#include "foundation/ThreadStart.h"
#include "support/ManualClock.h"

#include <atomic>
#include <future>
#include <numeric>
#include <stdexcept>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using std::chrono::seconds;

TEST(DispatchQueueTest, BlocksRunOneAtATimeInTheOrderInWhichEachThreadQueuedThem) {
    constexpr int kThreads = 4;
    constexpr int kBlocks = 300;
    DispatchQueue queue("order");
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

TEST(DispatchQueueTest, SyncOnAnIdleQueueStaysOnTheCallersThreadAndThrowsWhatAsyncReports) {
    static std::string reported;
    reported.clear();
    DispatchQueue::setExceptionHandler([](std::string_view where, std::string_view what) {
        reported += std::string(where) + ": " + std::string(what);
    });
    DispatchQueue queue("idle");
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
    queue.sync([] { reported += "; and on"; });
    EXPECT_NE(ranOn, std::this_thread::get_id());
    EXPECT_FALSE(queue.isCurrent());
    DispatchQueue::setExceptionHandler(nullptr);
    EXPECT_EQ(reported, "idle: faultidle: an exception without a text; and on");
}

TEST(DispatchQueueTest, DelayedBlockRunsWhenDueAndNeverAfterTheQueueIsDestroyed) {
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

TEST(DispatchQueueTest, BlocksKeepTheirOrderWhileNoThreadCanBeStarted) {
    testing::ManualClock clock;
    static std::atomic<int> lines;
    lines = 0;
    DispatchQueue::setExceptionHandler([](std::string_view, std::string_view) { ++lines; });
    DispatchQueue queue("short of a thread");
    std::string order;
    std::future<void> waiting;
    {
        const ThreadShortage shortage;
        queue.async([&order] { order += 'a'; });
        queue.async([&order] { order += 'b'; });
        waiting = std::async(std::launch::async, [&] { queue.sync([&order] { order += 'c'; }); });
        clock.advance(seconds(4));
        EXPECT_EQ(order, "");
    }
    clock.advance(seconds(1));
    waiting.wait();
    DispatchQueue::setExceptionHandler(nullptr);
    EXPECT_EQ(order, "abc");
    EXPECT_EQ(lines, 1);
}

TEST(DispatchQueueTest, SyncCallsThatAlreadyWaitStillRunWhenTheQueueCloses) {
    // The queue closes at another moment each time.
    for (int i = 0; i < 500; ++i) {
        DispatchQueue queue("closing");
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
    const auto opener = std::async(std::launch::async, [&mayEnd] { mayEnd.signal(); });
    queue.reset();
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
