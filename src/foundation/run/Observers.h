// A list of observers of one kind of event.

#pragma once

#include "foundation/run/Mutex.h"
#include "foundation/run/Subscription.h"
#include "foundation/run/Unhandled.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

namespace sentrova {

// Safe from any thread. An event calls the observers one after another, in the order of their registration, on the
// calling thread. Observers may come and go during an event: one that has gone is not called any more, one that came is
// called from the next event on. Copies share the list.
template <class Event>
class Observers {
  public:
    using Observer = std::function<void(const Event&)>;

    // The subscription may outlive the list.
    Subscription add(Observer observer) {
        auto entry = std::make_shared<Entry>(std::move(observer));
        state_->change([&](List& list) { list.push_back(entry); });
        return Subscription([weak = std::weak_ptr(state_), entry] {
            entry->gone = true;
            if (const auto state = weak.lock()) {
                state->change([&](List& list) { std::erase(list, entry); });
            }
        });
    }

    bool empty() const { return state_->present()->empty(); }

    // What an observer throws is reported under the name given and reaches neither the caller nor the other observers.
    // False when an observer has thrown.
    bool notify(std::string_view where, const Event& event) const {
        bool taken = true;
        const auto present = state_->present();
        for (const auto& entry : *present) {
            if (!entry->gone) {
                taken = runGuarded(where, [&] { entry->observer(event); }) && taken;
            }
        }
        return taken;
    }

  private:
    struct Entry {
        explicit Entry(Observer given) : observer(std::move(given)) {}

        const Observer observer;
        std::atomic<bool> gone = false;
    };
    using List = std::vector<std::shared_ptr<Entry>>;

    class State {
      public:
        std::shared_ptr<const List> present() const EXCLUDES(mutex_) {
            MutexLock lock(mutex_);
            return list_;
        }

        // Replaces the list as a whole, so that an event walks its own list without the lock.
        template <class Edit>
        void change(Edit edit) EXCLUDES(mutex_) {
            MutexLock lock(mutex_);
            auto next = std::make_shared<List>(*list_);
            edit(*next);
            // The former list is destroyed after the lock is released: an observer may have a destructor of
            // consequence.
            std::shared_ptr<const List> former = std::move(next);
            former.swap(list_);
            lock.unlock();
        }

      private:
        mutable Mutex mutex_;
        std::shared_ptr<const List> list_ GUARDED_BY(mutex_) = std::make_shared<const List>();
    };

    std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace sentrova
