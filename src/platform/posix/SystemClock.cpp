#include "platform/posix/SystemClock.h"

#include "foundation/run/Threads.h"
#include "foundation/run/Unhandled.h"
#include "platform/OperatingSystem.h"

namespace sentrova::platform {

SystemClock::~SystemClock() {
    std::thread thread;
    {
        MutexLock lock(mutex_);
        stopped_ = true;
        thread = std::move(thread_);
        changed_.notifyOne();
    }
    if (thread.joinable()) {
        thread.join();
    }
}

Date SystemClock::wallTime() {
    return std::chrono::system_clock::now();
}

Clock::Monotonic SystemClock::monotonicTime() {
    return timeAwake();
}

Clock::TimerId SystemClock::schedule(Monotonic due, std::function<void()> function) {
    MutexLock lock(mutex_);
    tryStartLocked();
    const Key key{due, ++lastId_};
    const auto timer = timers_.emplace(key, std::move(function)).first;
    try {
        dueById_.emplace(key.second, due);
    } catch (...) {
        timers_.erase(timer);
        throw;
    }
    if (timers_.begin()->first == key) {
        changed_.notifyOne();
    }
    return key.second;
}

bool SystemClock::cancel(TimerId timer) {
    std::function<void()> dropped;
    MutexLock lock(mutex_);
    const auto due = dueById_.find(timer);
    if (due == dueById_.end()) {
        return false;
    }
    const auto entry = timers_.find({due->second, timer});
    // Destroyed after the lock is released, because the destructors of captured objects may run any code.
    dropped = std::move(entry->second);
    timers_.erase(entry);
    dueById_.erase(due);
    lock.unlock();
    return true;
}

void SystemClock::start() {
    while (!tryStart()) {
        pauseForThreads();
    }
}

bool SystemClock::tryStart() {
    MutexLock lock(mutex_);
    return tryStartLocked();
}

bool SystemClock::tryStartLocked() {
    if (!stopped_ && !thread_.joinable()) {
        thread_ = tryStartThread([this] { run(); });
    }
    return thread_.joinable();
}

void SystemClock::run() {
    MutexLock lock(mutex_);
    while (!stopped_) {
        const auto now = monotonicTime();
        if (timers_.empty()) {
            changed_.wait(lock);
        } else if (const auto due = timers_.begin()->first.first; due > now) {
            // The library's clock may continue while the machine sleeps. So only durations can be compared between the
            // two clocks, not points in time.
            changed_.waitUntil(lock, std::chrono::steady_clock::now() + (due - now));
        } else {
            auto node = timers_.extract(timers_.begin());
            dueById_.erase(node.key().second);
            lock.unlock();
            runGuarded("timer", node.mapped());
            node.mapped() = nullptr;
            lock.lock();
        }
    }
}

}  // namespace sentrova::platform
