#include "foundation/run/Mutex.h"

#include <cstdlib>
#include <functional>

#include <gtest/gtest.h>

#ifndef NDEBUG

namespace sentrova {
namespace {

TEST(LockOrderDeathTest, BreachAbortsTheProcessEvenInASingleThread) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Mutex file(LockRank::file);
    Mutex queue(LockRank::queue);
    Mutex other(LockRank::queue);
    const auto take = [](Mutex& outer, const std::function<void()>& inside) {
        MutexLock lock(outer);
        lock.unlock();
        lock.lock();
        inside();
    };
    const auto nothing = [] {};
    const auto inOrder = [&] {
        take(file, [&] { take(queue, nothing); }), take(other, nothing);
        std::_Exit(0);
    };
    EXPECT_EXIT(inOrder(), ::testing::ExitedWithCode(0), "");
    const std::function<void()> breaches[] = {
        [&] { take(queue, [&] { take(file, nothing); }); },
        [&] { take(queue, [&] { take(other, nothing); }); },
        [&] { take(queue, [&] { take(queue, nothing); }); },
    };
    for (const auto& run : breaches) {
        EXPECT_DEATH(run(), "lock order: ");
    }
}

}  // namespace
}  // namespace sentrova

#endif
