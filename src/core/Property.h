// A value that many threads read while few replace it: readers never see one that is half replaced.

#pragma once

#include "foundation/Mutex.h"

namespace sentrova {

template <class T>
class Property {
  public:
    T get() const EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return value_;
    }

    void set(T value) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        // The old value is destroyed after the lock is gone, with the argument.
        std::swap(value_, value);
        lock.unlock();
    }

  private:
    mutable Mutex mutex_;
    T value_ GUARDED_BY(mutex_){};
};

}  // namespace sentrova
