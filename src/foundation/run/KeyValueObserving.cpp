#include "foundation/run/KeyValueObserving.h"

#include <algorithm>
#include <ranges>
#include <utility>

namespace sentrova {

KeyValueObserving::~KeyValueObserving() = default;

Subscription KeyValueObserving::observe(std::string_view key, Observer observer, Options options) {
    if (options == Options::changes) {
        observer = [observer = std::move(observer)](const KeyValueChange& change) {
            if (!change.isPrior) {
                observer(change);
            }
        };
    }
    MutexLock lock(mutex_);
    auto observers = observers_.try_emplace(std::string(key)).first->second;
    lock.unlock();
    return observers.add(std::move(observer));
}

std::optional<Observers<KeyValueChange>> KeyValueObserving::observersOf(std::string_view key) {
    MutexLock lock(mutex_);
    const auto found = observers_.find(key);
    return found == observers_.end() ? std::nullopt : std::optional(found->second);
}

void KeyValueObserving::willChangeValueForKey(std::string_view key) {
    const auto observers = observersOf(key);
    if (!observers || observers->empty()) {
        return;
    }
    const auto oldValue = valueForKey(key);
    {
        MutexLock lock(mutex_);
        announced_.push_back({std::this_thread::get_id(), std::string(key), oldValue});
    }
    observers->notify(key, {key, true, oldValue, Value()});
}

void KeyValueObserving::didChangeValueForKey(std::string_view key) {
    Value oldValue;
    {
        MutexLock lock(mutex_);
        auto latestFirst = announced_ | std::views::reverse;
        const auto mine = std::ranges::find_if(latestFirst, [key](const Announced& change) {
            return change.thread == std::this_thread::get_id() && change.key == key;
        });
        if (mine != latestFirst.end()) {
            oldValue = std::move(mine->oldValue);
            announced_.erase(std::next(mine).base());
        }
    }
    const auto observers = observersOf(key);
    if (observers && !observers->empty()) {
        observers->notify(key, {key, false, oldValue, valueForKey(key)});
    }
}

}  // namespace sentrova
