#include "foundation/KeyValueObserving.h"

#include "foundation/DispatchQueue.h"
#include "foundation/Mutex.h"

#include <algorithm>
#include <atomic>
#include <ranges>
#include <thread>
#include <vector>

namespace sentrova {

namespace {

struct Registration {
    std::string key;
    KeyValueObserving::Observer observer;
    KeyValueObserving::Options options;
    std::atomic<bool> gone = false;
};

// A change that has been announced and not yet made, with the value before it.
struct Announced {
    std::thread::id thread;
    std::string key;
    Value oldValue;
};

}  // namespace

struct KeyValueObserving::State {
    Mutex mutex;
    std::vector<std::shared_ptr<Registration>> registrations GUARDED_BY(mutex);
    std::vector<Announced> announced GUARDED_BY(mutex);

    std::vector<std::shared_ptr<Registration>> observersOf(std::string_view key) EXCLUDES(mutex) {
        std::vector<std::shared_ptr<Registration>> found;
        MutexLock lock(mutex);
        std::ranges::copy_if(registrations, std::back_inserter(found),
                             [key](const auto& registration) { return registration->key == key; });
        return found;
    }
};

KeyValueObserving::KeyValueObserving() : state_(std::make_shared<State>()) {}
KeyValueObserving::~KeyValueObserving() = default;

Subscription KeyValueObserving::observe(std::string_view key, Observer observer, Options options) {
    auto registration = std::make_shared<Registration>();
    registration->key = key;
    registration->observer = std::move(observer);
    registration->options = options;

    MutexLock lock(state_->mutex);
    state_->registrations.push_back(registration);
    return Subscription([weak = std::weak_ptr(state_), registration] {
        registration->gone = true;
        if (const auto state = weak.lock()) {
            MutexLock removing(state->mutex);
            std::erase(state->registrations, registration);
        }
    });
}

void KeyValueObserving::willChangeValueForKey(std::string_view key) {
    const auto observers = state_->observersOf(key);
    if (observers.empty()) {
        return;
    }
    const auto oldValue = valueForKey(key);
    {
        MutexLock lock(state_->mutex);
        state_->announced.push_back({std::this_thread::get_id(), std::string(key), oldValue});
    }
    for (const auto& registration : observers) {
        if (!registration->gone && registration->options == Options::changesAndPriors) {
            runGuarded(key, [&] { registration->observer({key, true, oldValue, Value()}); });
        }
    }
}

void KeyValueObserving::didChangeValueForKey(std::string_view key) {
    Value oldValue;
    {
        MutexLock lock(state_->mutex);
        auto& announced = state_->announced;
        auto latestFirst = announced | std::views::reverse;
        const auto mine = std::ranges::find_if(latestFirst, [key](const Announced& change) {
            return change.thread == std::this_thread::get_id() && change.key == key;
        });
        if (mine != latestFirst.end()) {
            oldValue = std::move(mine->oldValue);
            announced.erase(std::next(mine).base());
        }
    }
    const auto observers = state_->observersOf(key);
    if (observers.empty()) {
        return;
    }
    const auto newValue = valueForKey(key);
    for (const auto& registration : observers) {
        if (!registration->gone) {
            runGuarded(key, [&] { registration->observer({key, false, oldValue, newValue}); });
        }
    }
}

}  // namespace sentrova
