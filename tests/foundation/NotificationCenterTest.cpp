#include "foundation/NotificationCenter.h"

#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

TEST(NotificationCenterTest, ObserversOfTheNameHearInTheOrderOfTheirRegistration) {
    NotificationCenter center;
    std::string heard;
    const auto note = [&heard](const char* who) {
        return [&heard, who](const Notification& notification) {
            heard += who + notification.userInfo["n"].description() + " ";
        };
    };
    const auto first = center.addObserver("A", note("first"));
    const auto other = center.addObserver("B", note("other"));
    auto second = center.addObserver("A", note("second"));
    center.post({"A", nullptr, {{"n", 1}}});
    center.post({"nobody's", nullptr, {}});
    second.reset();
    center.post({"A", nullptr, {{"n", 2}}});
    center.post({"B", nullptr, {{"n", 3}}});
    EXPECT_EQ(heard, "first1 second1 first2 other3 ");
}

TEST(NotificationCenterTest, ObserversMayComeAndGoDuringAPost) {
    NotificationCenter center;
    std::string heard;
    std::optional<Subscription> later;
    Subscription third;
    Subscription first;
    first = center.addObserver("A", [&](const Notification&) {
        heard += "first ";
        first.reset();
        third.reset();
        later = center.addObserver("A", [&heard](const Notification&) { heard += "later "; });
    });
    const auto second = center.addObserver("A", [&heard](const Notification&) { heard += "second "; });
    third = center.addObserver("A", [&heard](const Notification&) { heard += "third "; });
    center.post({"A", nullptr, {}});
    EXPECT_EQ(heard, "first second ");
    center.post({"A", nullptr, {}});
    EXPECT_EQ(heard, "first second second later ");
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
