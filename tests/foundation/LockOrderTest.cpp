#include "foundation/Mutex.h"
#include "foundation/ProcessWide.h"

#include <cstdlib>
#include <functional>
#include <iterator>

#include <gtest/gtest.h>

#ifndef NDEBUG

namespace sentrova {
namespace {

struct MadeUnderAQueue {
    MadeUnderAQueue() {
        Mutex queue(LockRank::queue);
        const MutexLock lock(queue);
    }
};
ProcessWide<MadeUnderAQueue> theMade;

TEST(LockOrderDeathTest, BreachEndsTheProcessBeforeAnyTwoThreadsMeet) {
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
    const auto make = [] { theMade.get(); };
    const std::pair<std::function<void()>, bool> cases[] = {
        {[&] { take(file, [&] { take(queue, nothing); }), take(other, nothing); }, true},
        {[&] { take(queue, [&] { take(file, nothing); }); }, false},
        {[&] { take(queue, [&] { take(other, nothing); }); }, false},
        {[&] { take(queue, [&] { take(queue, nothing); }); }, false},
        {[&] { take(file, make), take(file, make); }, true},
        {[&] { make(), take(other, make); }, false},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        const auto& [run, inOrder] = cases[i];
        if (inOrder) {
            EXPECT_EXIT((run(), std::_Exit(0)), ::testing::ExitedWithCode(0), "");
        } else {
            EXPECT_DEATH(run(), "lock order: ");
        }
    }
}

}  // namespace
}  // namespace sentrova

#endif
