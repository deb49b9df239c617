// Work that is repeated at an interval, in the background.

#pragma once

#include "foundation/Clock.h"

#include <functional>
#include <memory>
#include <string>

namespace sentrova {

// The first run comes one interval after it is scheduled. The runs keep to the intervals' grid, however long each
// takes; one that falls due while the run before it goes on, or while the machine sleeps, is made up for once. Runs are
// made on threads of a queue that all activities share; those of one activity never overlap. Safe from any thread.
class BackgroundActivity {
  public:
    // The interval is above zero: one that is not would never end.
    BackgroundActivity(std::string identifier, Clock::Duration interval, bool repeats);
    // Invalidates the activity.
    ~BackgroundActivity();
    BackgroundActivity(const BackgroundActivity&) = delete;
    BackgroundActivity& operator=(const BackgroundActivity&) = delete;

    const std::string& identifier() const;

    // To be called once.
    void schedule(std::function<void()> handler);

    // No run begins any more. One that has begun goes on, and may itself be the caller.
    void invalidate();

  private:
    class State;
    std::shared_ptr<State> state_;
};

}  // namespace sentrova
