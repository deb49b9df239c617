// Work that is repeated at an interval, in the background.

#pragma once

#include "foundation/run/NotificationCenter.h"
#include "foundation/run/OperationQueue.h"
#include "foundation/time/Clock.h"

#include <functional>
#include <memory>
#include <string>

namespace sentrova {

// The threads of all activities: one for each run in progress. Safe from any thread.
class BackgroundQueue {
  public:
    // The clock and the centre must outlive the queue and its activities.
    BackgroundQueue(Clock& clock, NotificationCenter& notifications)
        : clock_(clock), notifications_(notifications), queue_(clock) {}
    ~BackgroundQueue() { close(); }
    BackgroundQueue(const BackgroundQueue&) = delete;
    BackgroundQueue& operator=(const BackgroundQueue&) = delete;

    // Waits for the runs in progress.
    void close();

    Clock& clock() { return clock_; }
    NotificationCenter& notifications() { return notifications_; }
    OperationQueue& operations() { return queue_; }

  private:
    Clock& clock_;
    NotificationCenter& notifications_;
    OperationQueue queue_;
};

// The first run comes one interval after schedule. The runs keep to the grid of intervals, however long each takes. A
// run that falls due during the run before it, or while the machine sleeps, is made up for once. An activity has one
// timer, or one run that is queued or in progress, never two of them. Safe from any thread.
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
    // Whether a further run will begin: false before schedule, after invalidate, and once the only run of an activity
    // that does not repeat has begun.
    bool hasFurtherRun() const;

    // To be called once; does nothing after invalidate. When it throws, the activity is not scheduled.
    void schedule(std::function<void()> handler);

    // No run begins after this. A run that has begun goes on, and may itself be the caller.
    void invalidate();

  private:
    class State;
    std::shared_ptr<State> state_;
};

}  // namespace sentrova
