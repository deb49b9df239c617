// The tasks that were started, by name.

#pragma once

#include "foundation/run/BackgroundActivity.h"
#include "foundation/run/Mutex.h"
#include "foundation/run/Timer.h"
#include "foundation/value/Value.h"
#include "operations/DailyTimers.h"

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova {

// A task has one timer: a background activity, or a daily timer on a thread of its own. Starting a task ends the timer
// that the name had before. A run that has begun is not interrupted, and a task's next run waits until that run is
// over, even when the task was started anew in between. A run that waits is dropped when its timer is ended. Safe from
// any thread.
class TaskList {
  public:
    using Run = std::function<void()>;
    // A daily timer: its first date, the date that follows each firing, and what it runs.
    struct Daily {
        Date first;
        Timer::Next next;
        Run run;
    };
    using Activities = std::map<std::string, std::shared_ptr<BackgroundActivity>, std::less<>>;

    // The queue must outlive the list.
    explicit TaskList(BackgroundQueue& queue) : queue_(queue) {}
    ~TaskList() { close(); }
    TaskList(const TaskList&) = delete;
    TaskList& operator=(const TaskList&) = delete;

    // When the host refuses the timer or its thread, these throw, and the task's former timer goes on.
    void startActivity(const std::string& name, Clock::Duration interval, bool repeats, Run run) EXCLUDES(mutex_);
    void startDaily(const std::string& name, const Daily& daily) EXCLUDES(mutex_);
    // A daily timer on the calling thread. Returns when the timer has ended.
    void runDaily(const std::string& name, const Daily& daily) EXCLUDES(mutex_);

    // Ends the task's background activity. False when the task has none; a daily timer goes on.
    bool stopActivity(std::string_view name) EXCLUDES(mutex_);
    // Ends every task.
    void endAll() EXCLUDES(mutex_);

    // Ends every task, waits for the threads of daily timers, and starts no other daily timers.
    void close() EXCLUDES(mutex_);

    Activities activities() EXCLUDES(mutex_);
    // Null when the task has no background activity.
    std::shared_ptr<BackgroundActivity> activity(std::string_view name) EXCLUDES(mutex_);

    // Held from reading the file of the tasks until they are started, so that of two starts of a task the one with the
    // newer entry is the one that lasts.
    Mutex starting{LockRank::transaction};
    // What the file held when it was last read.
    std::vector<Dictionary> entries GUARDED_BY(starting);

  private:
    // Runs check by a weak reference to this whether their timer is still the task's.
    struct Token {};

    struct Task {
        std::shared_ptr<Token> token;
        std::shared_ptr<BackgroundActivity> activity;
        std::shared_ptr<Timer> daily;

        void end() const;
    };
    using Tasks = std::map<std::string, Task, std::less<>>;

    Task dailyTask(const std::string& name, const Daily& daily);
    void put(const std::string& name, Task task) EXCLUDES(mutex_);
    // Waits for the run of the task that is under way. False when the timer of the waiting run was ended.
    bool beginRun(const std::string& name, const std::weak_ptr<Token>& token) EXCLUDES(mutex_);
    void endRun(const std::string& name) EXCLUDES(mutex_);
    // What the run throws is reported, and the timer goes on.
    void runInTurn(const std::string& name, const std::weak_ptr<Token>& token, const Run& run) EXCLUDES(mutex_);

    BackgroundQueue& queue_;
    Mutex mutex_;
    Condition turnsChanged_;
    Tasks tasks_ GUARDED_BY(mutex_);
    // The tasks with a run under way.
    std::set<std::string, std::less<>> running_ GUARDED_BY(mutex_);
    // Last, so that its threads have ended before what they work on goes.
    DailyTimers dailyTimers_;
};

}  // namespace sentrova
