#include "foundation/ProcessWide.h"

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

std::string ended;
std::atomic<int> made = 0;

template <char name>
struct Noted {
    Noted() { ++made; }
    ~Noted() { ended += name; }
    Noted(const Noted&) = delete;
    Noted& operator=(const Noted&) = delete;
};

ProcessWide<Noted<'a'>> a;
ProcessWide<Noted<'b'>> b;
ProcessWide<Noted<'c'>> c;

TEST(ProcessWideTest, ResetDropsTheYoungestFirstAndTheNextUseMakesItAgain) {
    ProcessWideState::reset();
    ended.clear();
    made = 0;
    EXPECT_EQ(b.existing(), nullptr);
    auto* const first = &b.get();
    a.get();
    EXPECT_EQ(&b.get(), first);
    EXPECT_EQ(b.existing(), first);
    EXPECT_EQ(made, 2);
    ProcessWideState::reset();
    EXPECT_EQ(ended, "ab");
    EXPECT_EQ(b.existing(), nullptr);
    b.get();
    EXPECT_EQ(made, 3);
    ProcessWideState::reset();
    EXPECT_EQ(ended, "abb");
}

TEST(ProcessWideTest, ThreadsThatComeTogetherGetTheSameObject) {
    ProcessWideState::reset();
    made = 0;
    std::vector<const void*> seen(8);
    std::vector<std::thread> threads;
    for (auto& place : seen) {
        threads.emplace_back([&place] { place = &c.get(); });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(std::set(seen.begin(), seen.end()), std::set<const void*>{c.existing()});
    EXPECT_EQ(made, 1);
    ProcessWideState::reset();
}

}  // namespace
}  // namespace sentrova
