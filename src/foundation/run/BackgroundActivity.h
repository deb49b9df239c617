// Runs work in the background at a fixed interval.

#pragma once

#include "foundation/run/Clock.h"
#include "foundation/run/NotificationCenter.h"
#include "foundation/run/OperationQueue.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace sentrova {

// Runs the work of all activities, on one thread per run in progress. Safe from any thread.
class BackgroundQueue {
  public:
    // The clock and the centre must outlive the queue and its activities.
    BackgroundQueue(Clock& clock, NotificationCenter& notifications)
        : clock_(clock), notifications_(notifications), queue_(clock) {}
    ~BackgroundQueue() { close(); }
    BackgroundQueue(const BackgroundQueue&) = delete;
    BackgroundQueue& operator=(const BackgroundQueue&) = delete;

    // Cancels the queued runs and waits for the runs in progress.
    void close();

    Clock& clock() { return clock_; }
    NotificationCenter& notifications() { return notifications_; }
    OperationQueue& operations() { return queue_; }

  private:
    Clock& clock_;
    NotificationCenter& notifications_;
    OperationQueue queue_;
};

// The first run is due one interval after schedule, each further run one interval after the due time of the one before,
// however long a run takes. Runs that fall due during another run, or while the machine sleeps, are made up for by one
// run. An activity never has two runs queued or in progress. Safe from any thread.
class BackgroundActivity {
  public:
    // Throws std::invalid_argument when the interval is not above zero. The queue must outlive the activity.
    BackgroundActivity(BackgroundQueue& queue, std::string identifier, Clock::Duration interval, bool repeats);
    // Invalidates the activity.
    ~BackgroundActivity();
    BackgroundActivity(const BackgroundActivity&) = delete;
    BackgroundActivity& operator=(const BackgroundActivity&) = delete;

    const std::string& identifier() const;
    Clock::Duration interval() const;
    bool repeats() const;
    // Whether another run will begin. False before schedule, after invalidate, and, for an activity that does not
    // repeat, as soon as its run has begun.
    bool hasFurtherRun() const;
    // When the next run is due. Absent if there is none, and while a run is queued or in progress.
    std::optional<Date> nextRun() const;

    // Call it once. Does nothing after invalidate. The handler runs on a thread of the queue. When this function
    // throws, the activity is not scheduled.
    void schedule(std::function<void()> handler);

    // No run begins after this call. A run in progress continues and is not waited for; the handler itself may call
    // this.
    void invalidate();

  private:
    class State;
    std::shared_ptr<State> state_;
};

}  // namespace sentrova
