// The started tasks and their timers, by task name.

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

// A task has one timer: a background activity, or a daily timer on its own thread. Starting a task ends its previous
// timer, but never interrupts a run. Runs of one task do not overlap, even across a restart of the task: the next run
// waits until the current one has ended. A waiting run is dropped if its timer is ended meanwhile. Safe from any
// thread.
class TaskList {
  public:
    using Run = std::function<void()>;
    // A daily timer: its first date, the function that gives the date after each firing, and the work.
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

    // Both throw if the host refuses the timer or its thread; the task's previous timer then continues.
    void startActivity(const std::string& name, Clock::Duration interval, bool repeats, Run run) EXCLUDES(mutex_);
    void startDaily(const std::string& name, const Daily& daily) EXCLUDES(mutex_);
    // Runs a daily timer on the calling thread. Returns when the timer has ended.
    void runDaily(const std::string& name, const Daily& daily) EXCLUDES(mutex_);

    // Ends the task's background activity. Returns false if the task has none; a daily timer is left running.
    bool stopActivity(std::string_view name) EXCLUDES(mutex_);
    // Ends every task.
    void endAll() EXCLUDES(mutex_);

    // Ends every task and waits for the threads of daily timers. No daily timer can be started afterwards.
    void close() EXCLUDES(mutex_);

    Activities activities() EXCLUDES(mutex_);
    // Null when the task has no background activity.
    std::shared_ptr<BackgroundActivity> activity(std::string_view name) EXCLUDES(mutex_);

    // When each task runs next. Tasks without a further run, and those with a run under way, are left out.
    std::map<std::string, Date, std::less<>> nextRuns() EXCLUDES(mutex_);

    // Held from reading the task list file until the tasks are started. Of two concurrent starts of a task, the one
    // that read the newer entry therefore comes last and wins.
    Mutex starting{LockRank::transaction};
    // The entries of the task list file when it was last read.
    std::vector<Dictionary> entries GUARDED_BY(starting);

  private:
    // A run holds a weak reference to the token of its timer. If the token is gone, the timer has been replaced or
    // ended.
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
    // Waits until no run of the task is under way. Returns false if the waiting run's timer has been ended.
    bool beginRun(const std::string& name, const std::weak_ptr<Token>& token) EXCLUDES(mutex_);
    void endRun(const std::string& name) EXCLUDES(mutex_);
    // Runs when no other run of the task is under way. An exception is reported, and the timer continues.
    void runInTurn(const std::string& name, const std::weak_ptr<Token>& token, const Run& run) EXCLUDES(mutex_);

    BackgroundQueue& queue_;
    Mutex mutex_;
    Condition turnsChanged_;
    Tasks tasks_ GUARDED_BY(mutex_);
    // Once set, a new task is ended at once.
    bool closed_ GUARDED_BY(mutex_) = false;
    // The names of tasks with a run under way.
    std::set<std::string, std::less<>> running_ GUARDED_BY(mutex_);
    // Destroyed first: its threads use the members above.
    DailyTimers dailyTimers_;
};

}  // namespace sentrova
