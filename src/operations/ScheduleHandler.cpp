#include "operations/ScheduleHandler.h"

#include "collection/EventCollectionSchedule.h"
#include "core/FileUtils.h"
#include "core/GlobalConstants.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "core/PropertyListHandler.h"
#include "core/Utilities.h"
#include "foundation/BackgroundActivity.h"
#include "foundation/DateFormat.h"
#include "foundation/DispatchQueue.h"
#include "foundation/Mutex.h"
#include "foundation/ProcessWide.h"
#include "operations/DailyTime.h"
#include "operations/TaskRegistry.h"

#include <list>
#include <map>
#include <thread>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("ScheduleHandler");
constexpr std::int64_t kBytesPerGigabyte = 1'000'000'000;

const TaskRegistry::Registration kSizeGuard("ScheduleHandler", "CheckEventDatasize",
                                            [] { ScheduleHandler::init()->CheckEventDatasize(); });

std::string taskListFile() {
    return fmt::format("{}/{}", GlobalVariables::getInstance().confPath(), GlobalConstants::SCHEDULES_FILE);
}

std::vector<Dictionary> taskEntries() {
    const auto tasks =
        PropertyListHandler::initWithFile(taskListFile()).GetValueForKey(ScheduleHandler::kScheduleTasks);
    std::vector<Dictionary> entries;
    if (const auto* array = tasks.array()) {
        for (std::size_t i = 0; i < array->size(); ++i) {
            if (const auto* entry = (*array)[i].dictionary()) {
                entries.push_back(*entry);
            } else {
                kLog.error(__func__, "Entry {} of {} is no task: {}", i, taskListFile(), (*array)[i]);
            }
        }
    }
    return entries;
}

std::string nameOf(const Dictionary& entry) {
    return entry[ScheduleHandler::kTaskName].description();
}

// The entry's interval, kept within what a timer can take.
std::chrono::seconds intervalOf(const Dictionary& entry) {
    constexpr std::chrono::hours kLongest{24 * 366 * 10};
    const auto seconds = entry[ScheduleHandler::kIntervalSeconds].doubleValue();
    if (!(seconds >= 1)) {
        kLog.error(__func__, "The interval of task {} is {}; it is taken as {} seconds", nameOf(entry),
                   entry[ScheduleHandler::kIntervalSeconds], ScheduleHandler::kShortestInterval.count());
        return ScheduleHandler::kShortestInterval;
    }
    const std::chrono::duration<double> longest = kLongest;
    return seconds < longest.count() ? std::chrono::seconds(static_cast<std::int64_t>(seconds)) : kLongest;
}

// The tasks that are background activities, by name.
class TaskList {
  public:
    using Activity = std::shared_ptr<BackgroundActivity>;
    using Activities = std::map<std::string, Activity, std::less<>>;

    // An earlier one of the name goes on, unlisted.
    void set(const std::string& name, const Activity& activity) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        auto& listed = activities_[name];
        if (listed) {
            replaced_.push_back(std::move(listed));
        }
        listed = activity;
    }

    bool contains(std::string_view name) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return activities_.contains(name);
    }

    // Null when there is none.
    Activity remove(std::string_view name) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        const auto found = activities_.find(name);
        return found == activities_.end() ? nullptr : std::move(activities_.extract(found).mapped());
    }

    Activities copy() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return activities_;
    }

  private:
    Mutex mutex_;
    Activities activities_ GUARDED_BY(mutex_);
    // Activities whose place in the list another one of their name has taken: they go on, for only a stop by name ends
    // one. There are as many as tasks were started together more than once.
    std::vector<Activity> replaced_ GUARDED_BY(mutex_);
};

// The daily tasks: a timer each, which lives until the process ends or its single firing is over.
class DailyTimers {
  public:
    DailyTimers() = default;
    ~DailyTimers() { quiesce(); }
    DailyTimers(const DailyTimers&) = delete;
    DailyTimers& operator=(const DailyTimers&) = delete;

    // Ends the timers and their threads.
    void quiesce() EXCLUDES(mutex_) {
        std::list<std::thread> threads;
        {
            MutexLock lock(mutex_);
            closed_ = true;
            for (auto* timer : timers_) {
                timer->invalidate();
            }
            threads.swap(threads_);
        }
        for (auto& thread : threads) {
            thread.join();
        }
    }

    void startThread(const Dictionary& entry) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        threads_.emplace_back([this, entry] { runGuarded("ScheduleHandler", [this, &entry] { runTask(entry); }); });
    }

    // Runs the task on the calling thread for as long as its timer lives.
    void runTask(const Dictionary& entry) {
        const auto time = DailyTime::parse(entry[ScheduleHandler::kRunAt].description());
        if (!time) {
            return;
        }
        const auto fireDate = time->firstAfter(Clock::shared().wallTime());
        if (LogSource::isWritten(LogLevel::Info)) {
            kLog.info("initiateTimer", "Next fire time for {} is {}", nameOf(entry),
                      DateFormat::format("yyyy-MM-dd HH:mm:ss zzz", fireDate));
        }
        Timer::Next next = [](Date, Date) { return std::optional<Date>(); };
        if (entry[ScheduleHandler::kRepeat].boolValue()) {
            next = [time = *time, interval = intervalOf(entry)](Date fired, Date now) {
                return std::optional(time.nextAfter(fired, interval, now));
            };
        }
        // What a run throws is logged, and the timer goes on.
        Timer timer(fireDate, std::move(next),
                    [&entry] { runGuarded("ScheduleHandler", [&entry] { ScheduleHandler::runTimerTask(entry); }); });
        run(timer);
    }

  private:
    void run(Timer& timer) EXCLUDES(mutex_) {
        {
            MutexLock lock(mutex_);
            if (closed_) {
                return;
            }
            timers_.push_back(&timer);
        }
        timer.run();
        MutexLock lock(mutex_);
        timers_.remove(&timer);
    }

    Mutex mutex_{LockRank::schedule};
    bool closed_ GUARDED_BY(mutex_) = false;
    std::list<Timer*> timers_ GUARDED_BY(mutex_);
    std::list<std::thread> threads_ GUARDED_BY(mutex_);
};

ProcessWide<TaskList> theTaskList;
ProcessWide<DailyTimers> theDailyTimers;

void startActivity(const Dictionary& entry) {
    const auto name = nameOf(entry);
    const auto activity =
        std::make_shared<BackgroundActivity>(name, intervalOf(entry), entry[ScheduleHandler::kRepeat].boolValue());
    theTaskList.get().set(name, activity);
    activity->schedule([entry] {
        if (entry[ScheduleHandler::kTaskStatus] == Value(ScheduleHandler::kEnabled)) {
            ScheduleHandler::runTask(entry);
        }
    });
}

}  // namespace

struct SharedSchedule {
    std::shared_ptr<ScheduleHandler> handler{new ScheduleHandler};
};

namespace {
ProcessWide<SharedSchedule> theSchedule;
}  // namespace

ScheduleHandler::ScheduleHandler() : ConcurrentOperationAbstract("ScheduleHandler") {
    kLog.debug("init", "ScheduleHandler initialised");
}

std::shared_ptr<ScheduleHandler> ScheduleHandler::init() {
    kLog.debug(__func__, "ScheduleHandler init called");
    initRealTimeStatus();
    return theSchedule.get().handler;
}

void ScheduleHandler::start() {
    kLog.debug(__func__, "ScheduleHandler start called");
    if (!canStart()) {
        kLog.error(__func__, "ScheduleHandler start failed");
        return;
    }
    started();
    startTask(kAll);
    completeOperation();
}

void ScheduleHandler::cancel() {
    cancelOperation();
}

void ScheduleHandler::CheckEventDatasize() {
    try {
        kLog.debug(__func__, "Going to check EventData folder size");
        auto& configuration = GlobalVariables::getInstance();
        const auto size = FileUtils::getFoldersize(configuration.eventDataPath());
        std::int64_t limit = 0;
        if (__builtin_mul_overflow(configuration.eventDataSize(), kBytesPerGigabyte, &limit)) {
            limit = configuration.eventDataSize() > 0 ? std::numeric_limits<std::int64_t>::max()
                                                      : std::numeric_limits<std::int64_t>::min();
        }
        const bool reached = size >= limit;
        if (reached) {
            kLog.info(__func__, "EventCollection has to be stopped as event data has reached max size");
        }
        configuration.setMaxEventDataSizeReached(reached);
    } catch (const std::exception& exception) {
        kLog.error(__func__, "{}", exception.what());
    }
}

void ScheduleHandler::startTask(std::string_view name) {
    kLog.info(__func__, "Going to StartTask {}", name);
    if (theTaskList.get().contains(name)) {
        stopTask(name);
    }
    for (const auto& entry : taskEntries()) {
        if (name != kAll && entry[kTaskName] != Value(name)) {
            continue;
        }
        const auto& runAt = entry[kRunAt];
        if (name == kAll && !runAt.isNull()) {
            if (!DailyTime::parse(runAt.description())) {
                kLog.error(__func__, "Task {} is not scheduled: its RunAt \"{}\" is no time of day (HH:mm:ss)",
                           nameOf(entry), runAt);
                continue;
            }
            theDailyTimers.get().startThread(entry);
        } else {
            startActivity(entry);
        }
        kLog.info(__func__, "ScheduleHandler {} has been scheduled", nameOf(entry));
    }
}

void ScheduleHandler::initiateTimer(const Dictionary& entry) {
    theDailyTimers.get().runTask(entry);
}

void ScheduleHandler::runTimerTask(const Dictionary& entry) {
    runTask(entry);
}

void ScheduleHandler::runTask(const Dictionary& entry) {
    const auto name = nameOf(entry);
    UpdateTaskWithName(name, kLastScheduleTimeInMillis, Clock::shared().epochSeconds());
    UpdateTaskWithName(name, kLastScheduleTime, Utilities::getCurrentTimeInFormat("E, d MMM yyyy HH:mm:ss Z"));
    const auto className = entry[kClassName].description();
    const auto selector = entry[kSelector].description();
    switch (TaskRegistry::run(className, selector)) {
        case TaskRegistry::Outcome::ran:
            break;
        case TaskRegistry::Outcome::unknownClass:
            kLog.error(__func__, "Task {} cannot run: there is no class {}", name, className);
            break;
        case TaskRegistry::Outcome::unknownMethod:
            kLog.error(__func__, "Task {} cannot run: {} has no method {}", name, className, selector);
            break;
    }
}

void ScheduleHandler::stopTask(std::string_view name) {
    if (const auto activity = theTaskList.get().remove(name)) {
        activity->invalidate();
        kLog.info(__func__, "{} schedule has been stopped", name);
    } else {
        kLog.info(__func__, "{} is not available in the list", name);
    }
}

void ScheduleHandler::stopAllTasks() {
    for (const auto& [name, activity] : theTaskList.get().copy()) {
        kLog.info(__func__, "{} has been stopped", activity->identifier());
        activity->invalidate();
    }
    kLog.info(__func__, "All Tasks stopped");
}

void ScheduleHandler::UpdateTaskWithName(std::string_view name, std::string_view withKey, const Value& withValue) {
    PropertyListHandler::change(taskListFile(), [&](Dictionary& file) {
        auto tasks = file[kScheduleTasks];
        if (auto* entries = tasks.array()) {
            for (auto& entry : *entries) {
                auto* task = entry.dictionary();
                if (task && (name == kAll || (*task)[kTaskName] == Value(name))) {
                    task->set(withKey, withValue);
                }
            }
            file.set(kScheduleTasks, std::move(tasks));
        }
        kLog.debug("UpdateTaskWithName", "{} going to write to schedules.plist", Value(file));
    });
}

Value ScheduleHandler::getProperty(std::string_view key, std::string_view ofTask) {
    for (const auto& entry : taskEntries()) {
        if (entry[kTaskName] == Value(ofTask)) {
            return entry[key];
        }
    }
    return {};
}

void ScheduleHandler::initRealTimeStatus() {
    kLog.info(__func__, "updating EventCollection schedule");
    UpdateTaskWithName(EventCollectionSchedule::kTaskName, kRepeat,
                       GlobalVariables::getInstance().isRealTime() ? "false" : "true");
}

std::string ScheduleHandler::description() {
    Dictionary list;
    for (const auto& [name, activity] : theTaskList.get().copy()) {
        list.set(name, activity->identifier());
    }
    return "Printing the task array " + Value(std::move(list)).description();
}

}  // namespace sentrova
