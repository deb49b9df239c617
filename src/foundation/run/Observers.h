// A list of observers of one kind of event.

#pragma once

#include "foundation/run/Mutex.h"
#include "foundation/run/Subscription.h"
#include "foundation/run/Unhandled.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

namespace sentrova {

// Safe from any thread. `notify` calls the observers one after another, in the order of their registration, on the
// calling thread. Observers may be added and removed during a `notify`: a removed observer is not called any more, an
// added one is called from the next `notify` on. Copies share the list.
template <class Event>
class Observers {
  public:
    using Observer = std::function<void(const Event&)>;

    // The subscription may outlive the list.
    Subscription add(Observer observer) {
        auto entry = std::make_shared<Entry>(std::move(observer));
        state_->change([&](List& list) {
            removeGone(list);
            list.push_back(entry);
        });
        return Subscription([weak = std::weak_ptr(state_), entry] {
            entry->gone = true;
            const auto state = weak.lock();
            if (!state) {
                return;
            }
            try {
                state->change(removeGone);
            } catch (const std::bad_alloc&) {  // NOLINT(bugprone-empty-catch): the next addition removes the entry
            }
        });
    }

    bool empty() const { return state_->current()->empty(); }

    // An observer's exception is reported under `where` and reaches neither the caller nor the other observers. Returns
    // false if an observer threw.
    bool notify(std::string_view where, const Event& event) const {
        bool taken = true;
        const auto current = state_->current();
        for (const auto& entry : *current) {
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

    static void removeGone(List& list) {
        std::erase_if(list, [](const auto& entry) { return entry->gone.load(); });
    }

    class State {
      public:
        std::shared_ptr<const List> current() const EXCLUDES(mutex_) {
            MutexLock lock(mutex_);
            return list_;
        }

        // Replaces the whole list, so that `notify` can walk its own copy without the lock.
        template <class Edit>
        void change(Edit edit) EXCLUDES(mutex_) {
            MutexLock lock(mutex_);
            auto next = std::make_shared<List>(*list_);
            edit(*next);
            // The old list is destroyed after the lock is released, because an observer's destructor may run any code.
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
