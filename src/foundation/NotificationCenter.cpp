#include "foundation/NotificationCenter.h"

#include "foundation/DispatchQueue.h"
#include "foundation/ProcessWide.h"

#include <atomic>

namespace sentrova {

struct NotificationCenter::Registration {
    Observer observer;
    std::atomic<bool> gone = false;
};

struct NotificationCenter::State {
    // Replaced as a whole when it changes, so that a post walks its list without the lock.
    using List = std::vector<std::shared_ptr<Registration>>;

    Mutex mutex;
    std::map<std::string, std::shared_ptr<const List>, std::less<>> lists GUARDED_BY(mutex);
};

namespace {
ProcessWide<NotificationCenter> theDefaultCenter;
}  // namespace

NotificationCenter::NotificationCenter() : state_(std::make_shared<State>()) {}

NotificationCenter& NotificationCenter::defaultCenter() {
    return theDefaultCenter.get();
}

Subscription NotificationCenter::addObserver(std::string_view name, Observer observer) {
    auto registration = std::make_shared<Registration>();
    registration->observer = std::move(observer);

    MutexLock lock(state_->mutex);
    auto& list = state_->lists.try_emplace(std::string(name)).first->second;
    auto longer = list ? State::List(*list) : State::List();
    longer.push_back(registration);
    list = std::make_shared<const State::List>(std::move(longer));

    return Subscription([weakState = std::weak_ptr(state_), registration, name = std::string(name)] {
        registration->gone = true;
        const auto state = weakState.lock();
        if (!state) {
            return;
        }
        MutexLock removing(state->mutex);
        auto& shared = state->lists.find(name)->second;
        auto shorter = *shared;
        std::erase(shorter, registration);
        shared = std::make_shared<const State::List>(std::move(shorter));
    });
}

bool NotificationCenter::post(const Notification& notification) {
    std::shared_ptr<const State::List> observers;
    {
        MutexLock lock(state_->mutex);
        if (const auto found = state_->lists.find(notification.name); found != state_->lists.end()) {
            observers = found->second;
        }
    }
    bool taken = true;
    if (observers) {
        for (const auto& registration : *observers) {
            if (!registration->gone) {
                taken = runGuarded(notification.name, [&] { registration->observer(notification); }) && taken;
            }
        }
    }
    return taken;
}

}  // namespace sentrova
