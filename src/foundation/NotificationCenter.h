// Notifications by name between parts that do not know each other.
//
// Safe from any thread. A post calls the observers one after another, in the order of their registration, on the
// poster's thread, and returns when the last one has. What an observer throws is reported under the notification's name
// and reaches neither the poster nor the other observers. Observers may come and go during a post: one that has gone is
// not called any more, one that came is called from the next post on.

#pragma once

#include "foundation/Mutex.h"
#include "foundation/Subscription.h"
#include "foundation/Value.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova {

struct Notification {
    std::string_view name;
    // Who posts: an identity to compare, never to be followed. Null where that does not matter.
    const void* object = nullptr;
    Dictionary userInfo;
};

class NotificationCenter {
  public:
    using Observer = std::function<void(const Notification&)>;

    NotificationCenter();
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    // The process's one centre.
    static NotificationCenter& defaultCenter();

    // The subscription may outlive the centre.
    Subscription addObserver(std::string_view name, Observer observer);

    // False when an observer has thrown.
    bool post(const Notification& notification);

  private:
    struct Registration;
    struct State;

    std::shared_ptr<State> state_;
};

}  // namespace sentrova
