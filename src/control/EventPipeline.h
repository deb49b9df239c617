// Writes events to the console on a second thread, while the caller makes the next ones.

#pragma once

#include "control/Console.h"
#include "control/EventWriter.h"
#include "foundation/run/Mutex.h"
#include "foundation/value/Value.h"

#include <atomic>
#include <cstddef>
#include <deque>
#include <thread>
#include <vector>

namespace sentrova::control {

// One thread calls it. From the constructor to the end of `finish`, the console and the writer belong to the object's
// thread.
class EventPipeline {
  public:
    // Both arguments must outlive the object.
    EventPipeline(EventWriter& writer, Console& console);
    ~EventPipeline() { finish(); }
    EventPipeline(const EventPipeline&) = delete;
    EventPipeline& operator=(const EventPipeline&) = delete;

    // Events are written in the order of the calls. Blocks while the queue is full.
    void add(Dictionary event);
    // Writes what is queued, and ends the thread. Only the first call does anything.
    void finish() EXCLUDES(mutex_);
    // True once output could not be written. Further events are dropped.
    const std::atomic<bool>& hasFailed() const { return hasFailed_; }

  private:
    using Batch = std::vector<Value>;
    static constexpr std::size_t kBatch = 256;
    static constexpr std::size_t kMostBatches = 8;

    void hand(Batch batch) EXCLUDES(mutex_);
    void run() EXCLUDES(mutex_);
    void write(const Batch& batch);

    EventWriter& writer_;
    Console& console_;
    std::atomic<bool> hasFailed_ = false;
    Batch filling_;

    Mutex mutex_;
    Condition changed_;
    std::deque<Batch> queue_ GUARDED_BY(mutex_);
    bool isComplete_ GUARDED_BY(mutex_) = false;
    std::thread thread_;
};

}  // namespace sentrova::control
