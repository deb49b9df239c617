// State that there is once per process, made on its first use.
//
// Safe from any thread. It is never destroyed by the end of the process, since threads may still use it then. A test
// that plays a second start of the process within one run lets go of all of it with ProcessWideState::reset().

#pragma once

#include "foundation/Mutex.h"

#include <atomic>
#include <memory>

namespace sentrova {

class ProcessWideState {
  public:
    // Destroys everything process-wide, the youngest first, as if the process had just begun. Only while no other
    // thread uses any of it, but for those that endThreads ends, which is called first.
    static void reset();
    // Ends the threads of the objects that have some, by their function quiesce.
    static void endThreads();

    ProcessWideState(const ProcessWideState&) = delete;
    ProcessWideState& operator=(const ProcessWideState&) = delete;

  protected:
    ProcessWideState() = default;
    // A destructor would run at the end of the process, under live threads; nothing is ever deleted through this base.
    ~ProcessWideState() = default;

    void noteMade();

  private:
    virtual void quiesce() = 0;
    virtual void drop() = 0;
};

template <class T>
class ProcessWide final : public ProcessWideState {
  public:
    // Makes the object when there is none; a second thread waits until it is complete. T must not need itself while it
    // is made.
    T& get() {
        if (auto* object = object_.load(std::memory_order_acquire)) {
            mutex_.mayBeTaken();
            return *object;
        }
        MutexLock lock(mutex_);
        if (auto* object = object_.load(std::memory_order_relaxed)) {
            return *object;
        }
        // Owned by this variable, and on purpose not let go at the end of the process.
        auto* object = new T;  // NOLINT(cppcoreguidelines-owning-memory)
        object_.store(object, std::memory_order_release);
        noteMade();
        return *object;
    }

    // The object, or null while nobody has asked for it.
    T* existing() { return object_.load(std::memory_order_acquire); }

  private:
    void quiesce() override {
        if constexpr (requires(T& object) { object.quiesce(); }) {
            existing()->quiesce();
        }
    }

    void drop() override { std::unique_ptr<T>(object_.exchange(nullptr)).reset(); }

    Mutex mutex_{LockRank::making};
    std::atomic<T*> object_{nullptr};
};

}  // namespace sentrova
