#include "foundation/NotificationCenter.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

TEST(NotificationCenterTest, ObserversOfTheNameHearInTheirOrderAndMayComeAndGoDuringAPost) {
    NotificationCenter center;
    std::string heard;
    const auto note = [&heard](const char* who) {
        return [&heard, who](const Notification& notification) {
            heard += who + notification.userInfo["n"].description() + " ";
        };
    };
    Subscription first;
    Subscription third;
    Subscription later;
    first = center.addObserver("A", [&](const Notification& notification) {
        note("first")(notification);
        first.reset();
        third.reset();
        later = center.addObserver("A", note("later"));
    });
    const auto other = center.addObserver("B", note("other"));
    const auto second = center.addObserver("A", note("second"));
    third = center.addObserver("A", note("third"));
    for (int n = 1; const auto* name : {"A", "nobody's", "A", "B"}) {
        center.post({name, nullptr, {{"n", n++}}});
    }
    EXPECT_EQ(heard, "first1 second1 second3 later3 other4 ");
}

TEST(NotificationCenterTest, ThreadsPostAndSubscribeAtOnce) {
    NotificationCenter center;
    std::atomic<int> heard = 0;
    const auto constant = center.addObserver("A", [&heard](const Notification&) { ++heard; });
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&center] {
            for (int j = 0; j < 200; ++j) {
                const auto passing = center.addObserver("A", [](const Notification&) {});
                center.post({"A", nullptr, {}});
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(heard, 800);
}

}  // namespace
}  // namespace sentrova
