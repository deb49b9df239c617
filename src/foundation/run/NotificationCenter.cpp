#include "foundation/run/NotificationCenter.h"

#include "foundation/run/Current.h"

#include <utility>

namespace sentrova {

NotificationCenter& NotificationCenter::defaultCenter() {
    return Current<NotificationCenter>::get();
}

Subscription NotificationCenter::addObserver(std::string_view name, Observer observer) {
    MutexLock lock(mutex_);
    auto observers = observers_.try_emplace(std::string(name)).first->second;
    lock.unlock();
    return observers.add(std::move(observer));
}

bool NotificationCenter::post(const Notification& notification) {
    std::optional<Observers<Notification>> observers;
    {
        MutexLock lock(mutex_);
        if (const auto found = observers_.find(notification.name); found != observers_.end()) {
            observers = found->second;
        }
    }
    return !observers || observers->notify(notification.name, notification);
}

}  // namespace sentrova
