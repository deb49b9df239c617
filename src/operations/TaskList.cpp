#include "operations/TaskList.h"

#include "foundation/run/Unhandled.h"

#include <utility>

namespace sentrova {

void TaskList::close() {
    {
        MutexLock lock(mutex_);
        closed_ = true;
    }
    endAll();
    dailyTimers_.close();
}

void TaskList::Task::end() const {
    if (activity) {
        activity->invalidate();
    }
    if (daily) {
        daily->invalidate();
    }
}

void TaskList::startActivity(const std::string& name, Clock::Duration interval, bool repeats, Run run) {
    Task task{std::make_shared<Token>(), std::make_shared<BackgroundActivity>(queue_, name, interval, repeats),
              nullptr};
    task.activity->schedule(
        [this, name, token = std::weak_ptr(task.token), run = std::move(run)] { runInTurn(name, token, run); });
    put(name, std::move(task));
}

TaskList::Task TaskList::dailyTask(const std::string& name, const Daily& daily) {
    const auto token = std::make_shared<Token>();
    auto run = [this, name, weak = std::weak_ptr(token), run = daily.run] { runInTurn(name, weak, run); };
    return {token, nullptr,
            std::make_shared<Timer>(queue_.clock(), queue_.notifications(), daily.first, daily.next, std::move(run))};
}

void TaskList::startDaily(const std::string& name, const Daily& daily) {
    auto task = dailyTask(name, daily);
    dailyTimers_.start(name, task.daily);
    put(name, std::move(task));
}

void TaskList::runDaily(const std::string& name, const Daily& daily) {
    auto task = dailyTask(name, daily);
    const auto timer = task.daily;
    put(name, std::move(task));
    timer->run();
}

void TaskList::put(const std::string& name, Task task) {
    MutexLock lock(mutex_);
    const auto ended = closed_ ? std::move(task) : std::exchange(tasks_[name], std::move(task));
    lock.unlock();
    ended.end();
}

bool TaskList::stopActivity(std::string_view name) {
    MutexLock lock(mutex_);
    const auto found = tasks_.find(name);
    if (found == tasks_.end() || !found->second.activity) {
        return false;
    }
    const auto ended = tasks_.extract(found);
    lock.unlock();
    ended.mapped().end();
    return true;
}

void TaskList::endAll() {
    Tasks ended;
    {
        MutexLock lock(mutex_);
        ended.swap(tasks_);
    }
    for (const auto& [name, task] : ended) {
        task.end();
    }
}

TaskList::Activities TaskList::activities() {
    MutexLock lock(mutex_);
    Activities activities;
    for (const auto& [name, task] : tasks_) {
        if (task.activity) {
            activities.emplace(name, task.activity);
        }
    }
    return activities;
}

std::shared_ptr<BackgroundActivity> TaskList::activity(std::string_view name) {
    MutexLock lock(mutex_);
    const auto found = tasks_.find(name);
    return found == tasks_.end() ? nullptr : found->second.activity;
}

std::map<std::string, Date, std::less<>> TaskList::nextRuns() {
    std::map<std::string, std::shared_ptr<Timer>> dailies;
    {
        MutexLock lock(mutex_);
        for (const auto& [name, task] : tasks_) {
            if (task.daily) {
                dailies.emplace(name, task.daily);
            }
        }
    }
    std::map<std::string, Date, std::less<>> dates;
    for (const auto& [name, timer] : dailies) {
        if (const auto date = timer->nextDate()) {
            dates.emplace(name, *date);
        }
    }
    for (const auto& [name, activity] : activities()) {
        if (const auto date = activity->nextRun()) {
            dates.emplace(name, *date);
        }
    }
    return dates;
}

bool TaskList::beginRun(const std::string& name, const std::weak_ptr<Token>& token) {
    MutexLock lock(mutex_);
    while (running_.contains(name)) {
        turnsChanged_.wait(lock);
    }
    if (token.expired()) {
        return false;
    }
    running_.insert(name);
    return true;
}

void TaskList::endRun(const std::string& name) {
    MutexLock lock(mutex_);
    running_.erase(name);
    turnsChanged_.notifyAll();
}

void TaskList::runInTurn(const std::string& name, const std::weak_ptr<Token>& token, const Run& run) {
    if (beginRun(name, token)) {
        runGuarded(name, run);
        endRun(name);
    }
}

}  // namespace sentrova
