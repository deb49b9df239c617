// Notifications by name between parts that do not know each other.
//
// Safe from any thread. `post` calls the observers of the name on the calling thread, one after another as described in
// Observers.h, and returns after the last one.

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
    // The sender, for comparison only: never dereference it. Null where the sender does not matter.
    const void* object = nullptr;
    Dictionary userInfo;
};

class NotificationCenter {
  public:
    using Observer = Observers<Notification>::Observer;

    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    // The running agent's centre. Throws std::logic_error without an agent.
    static NotificationCenter& defaultCenter();

    // The subscription may outlive the centre.
    Subscription addObserver(std::string_view name, Observer observer) EXCLUDES(mutex_);

    // Returns false if an observer threw.
    bool post(const Notification& notification) EXCLUDES(mutex_);

  private:
    Mutex mutex_;
    std::map<std::string, Observers<Notification>, std::less<>> observers_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
