// Notifications by name between parts that do not know each other.
//
// Safe from any thread. A post calls the observers of the name as Observers does, on the poster's thread, and returns
// when the last one has returned.

#pragma once

#include "foundation/run/Observers.h"
#include "foundation/value/Value.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace sentrova {

struct Notification {
    std::string_view name;
    // Who posts: an identity to compare, never to be followed. Null where that does not matter.
    const void* object = nullptr;
    Dictionary userInfo;
};

class NotificationCenter {
  public:
    using Observer = Observers<Notification>::Observer;

    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    // The agent's one centre.
    static NotificationCenter& defaultCenter();

    // The subscription may outlive the centre.
    Subscription addObserver(std::string_view name, Observer observer) EXCLUDES(mutex_);

    // False when an observer has thrown.
    bool post(const Notification& notification) EXCLUDES(mutex_);

  private:
    Mutex mutex_;
    std::map<std::string, Observers<Notification>, std::less<>> observers_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
