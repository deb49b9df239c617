// Work that is repeated at an interval, in the background.

#pragma once

#include "foundation/Clock.h"

#include <functional>
#include <memory>
#include <string>

namespace sentrova {

// The first run comes one interval after schedule. The runs keep to the grid of intervals, however long each takes. A
// run that falls due during the run before it, or while the machine sleeps, is made up for once. An activity has one
// timer, or one run that is queued or under way, never two of them. Runs use the threads of a queue that all activities
// share. Safe from any thread.
class BackgroundActivity {
  public:
    // Throws std::invalid_argument when the interval is not above zero.
    BackgroundActivity(std::string identifier, Clock::Duration interval, bool repeats);
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
