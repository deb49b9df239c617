// A mutex, its scoped lock and a condition variable that clang's thread-safety analysis understands.

#pragma once

#include "foundation/run/LockOrder.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define SENTROVA_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define SENTROVA_THREAD_ATTRIBUTE(x)
#endif

// The member may be touched only while the named mutex is held.
#define GUARDED_BY(mutex) SENTROVA_THREAD_ATTRIBUTE(guarded_by(mutex))
// The caller holds the named mutex.
#define REQUIRES(...) SENTROVA_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
// The caller does not hold the named mutex.
#define EXCLUDES(...) SENTROVA_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))

namespace sentrova {

class SENTROVA_THREAD_ATTRIBUTE(capability("mutex")) Mutex {
  public:
    Mutex() : Mutex(LockRank::leaf) {}
    // For a mutex whose holder takes other mutexes. Logging a line takes one.
    explicit Mutex(LockRank rank) : order_(rank) {}
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

  private:
    friend class MutexLock;
    std::mutex mutex_;
    [[no_unique_address]] LockOrder order_;
};

// Holds a mutex until the end of the scope; can be unlocked and locked again in between.
class SENTROVA_THREAD_ATTRIBUTE(scoped_lockable) MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) SENTROVA_THREAD_ATTRIBUTE(acquire_capability(mutex))
        : mutex_(mutex), lock_(mutex.mutex_, std::defer_lock) {
        take();
    }
    ~MutexLock() SENTROVA_THREAD_ATTRIBUTE(release_capability()) {
        if (lock_.owns_lock()) {
            mutex_.order_.released();
        }
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void unlock() SENTROVA_THREAD_ATTRIBUTE(release_capability()) {
        mutex_.order_.released();
        lock_.unlock();
    }
    void lock() SENTROVA_THREAD_ATTRIBUTE(acquire_capability()) { take(); }

  private:
    friend class Condition;

    void take() {
        mutex_.order_.wanted();
        lock_.lock();
        mutex_.order_.taken();
    }

    Mutex& mutex_;
    std::unique_lock<std::mutex> lock_;
};

class Condition {
  public:
    // Callers check their condition in a loop, because spurious wake-ups are possible.
    void wait(MutexLock& lock) { condition_.wait(lock.lock_); }
    void notifyOne() { condition_.notify_one(); }
    void notifyAll() { condition_.notify_all(); }

    // For the system clock's timer thread alone; everything else waits through a Clock.
    void waitUntil(MutexLock& lock, std::chrono::steady_clock::time_point due) {
        condition_.wait_until(lock.lock_, due);
    }

  private:
    std::condition_variable condition_;
};

// A counting semaphore that starts at 0.
class Semaphore {
  public:
    void signal() EXCLUDES(mutex_) {
        // Notifies under the lock, because the waiter may destroy the semaphore as soon as wait returns.
        MutexLock lock(mutex_);
        ++count_;
        condition_.notifyOne();
    }

    void wait() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        while (count_ == 0) {
            condition_.wait(lock);
        }
        --count_;
    }

  private:
    Mutex mutex_;
    Condition condition_;
    int count_ GUARDED_BY(mutex_) = 0;
};

}  // namespace sentrova
