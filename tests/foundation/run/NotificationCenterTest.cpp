#include "foundation/run/NotificationCenter.h"

#include <atomic>
#include <future>
#include <stdexcept>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

TEST(NotificationCenterTest, ObserversHearInOrderAndMaySubscribeLeaveAndThrowDuringAPost) {
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
        throw std::runtime_error("the first one's own fault");
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
    const auto work = [&center] {
        for (int j = 0; j < 400; ++j) {
            const auto passing = center.addObserver("A", [](const Notification&) {});
            center.post({"A", nullptr, {}});
        }
    };
    auto second = std::async(std::launch::async, work);
    auto third = std::async(std::launch::async, work);
    work();
    second.wait();
    third.wait();
    EXPECT_EQ(heard, 1200);
}

}  // namespace
}  // namespace sentrova
