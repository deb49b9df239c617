#include "operations/ScheduleHandler.h"

#include "core/FileUtils.h"
#include "core/GlobalConstants.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "core/PropertyListHandler.h"
#include "core/Utilities.h"
#include "foundation/run/Current.h"
#include "foundation/run/Threads.h"
#include "operations/DailyTime.h"
#include "operations/TaskList.h"
#include "operations/TaskRegistry.h"

#include <limits>
#include <optional>
#include <vector>

#include <fmt/format.h>

namespace sentrova {

namespace {

using Interval = std::chrono::microseconds;

constexpr LogSource kLog("ScheduleHandler");
constexpr std::int64_t kBytesPerGigabyte = 1'000'000'000;

ScheduleHandler& scheduler() {
    return Current<ScheduleHandler>::get();
}

std::string nameOf(const Dictionary& entry) {
    return entry[ScheduleHandler::kTaskName].description();
}

// Rounds to microseconds and limits the interval to ten years. Returns nothing for a value that is not above zero.
std::optional<Interval> parsedInterval(const Value& value) {
    constexpr std::chrono::hours kLongest{24 * 366 * 10};
    using Seconds = std::chrono::duration<double>;
    const Seconds seconds(value.doubleValue());
    if (seconds >= kLongest) {
        return kLongest;
    }
    // NaN compares false and is rejected here as well.
    const auto interval = seconds > Seconds::zero() ? std::chrono::round<Interval>(seconds) : Interval::zero();
    return interval > Interval::zero() ? std::optional(interval) : std::nullopt;
}

Interval intervalOf(const Dictionary& entry) {
    const auto& value = entry[ScheduleHandler::kIntervalSeconds];
    const auto interval = parsedInterval(value);
    if (!interval) {
        kLog.error("Task {} has the invalid interval {}; {} seconds are used instead", nameOf(entry), value,
                   ScheduleHandler::kDefaultInterval.count());
    }
    return interval.value_or(ScheduleHandler::kDefaultInterval);
}

}  // namespace

ScheduleHandler::ScheduleHandler(TaskList& tasks, const TaskRegistry& registry, GlobalVariables& configuration,
                                 Clock& clock, DateFormat& dates)
    : ConcurrentOperationAbstract("ScheduleHandler"),
      tasks_(tasks),
      registry_(registry),
      configuration_(configuration),
      clock_(clock),
      dates_(dates) {}

std::string ScheduleHandler::taskListFile() const {
    return fmt::format("{}/{}", configuration_.confPath(), GlobalConstants::SCHEDULES_FILE);
}

// Returns nothing if the file exists but cannot be read.
std::optional<std::vector<Dictionary>> ScheduleHandler::taskEntries() const {
    const auto file = PropertyListHandler::initWithFile(taskListFile());
    if (file.isUnread()) {
        return std::nullopt;
    }
    const auto tasks = file.GetValueForKey(kScheduleTasks);
    std::vector<Dictionary> entries;
    if (const auto* array = tasks.array()) {
        for (std::size_t i = 0; i < array->size(); ++i) {
            if (const auto* entry = (*array)[i].dictionary()) {
                entries.push_back(*entry);
            } else {
                kLog.error("Entry {} of {} is not a task: {}", i, taskListFile(), (*array)[i]);
            }
        }
    }
    return entries;
}

// The entries with that name, or all of them, in file order. The last of several entries with the same name wins. While
// the file cannot be read, the entries read last time are used: restarting a task must not make it vanish. The caller
// holds tasks_.starting.
std::vector<Dictionary> ScheduleHandler::entriesToStart(std::string_view name) {
    auto& known = tasks_.entries;
    if (auto present = taskEntries()) {
        known = *std::move(present);
    } else {
        kLog.error("Tasks are started from the last readable content of {}", taskListFile());
    }
    std::vector<Dictionary> entries;
    for (const auto& entry : known) {
        if (name != kAll && entry[kTaskName] != Value(name)) {
            continue;
        }
        if (std::erase_if(entries, [&](const auto& other) { return nameOf(other) == nameOf(entry); }) > 0) {
            kLog.error("Task {} occurs more than once in {}; only its last entry is scheduled", nameOf(entry),
                       taskListFile());
        }
        entries.push_back(entry);
    }
    return entries;
}

TaskList::Daily ScheduleHandler::dailyTimer(const Dictionary& entry, const DailyTime& time) {
    const auto first = time.firstAfter(clock_.wallTime());
    if (LogSource::isWritten(LogLevel::Info)) {
        kLog.info("Next fire time for {} is {}", nameOf(entry), dates_.format("yyyy-MM-dd HH:mm:ss zzz", first));
    }
    Timer::Next next = [](Date, Date) { return std::optional<Date>(); };
    if (entry[kRepeat].boolValue()) {
        next = [time, interval = intervalOf(entry)](Date fired, Date now) {
            return std::optional(time.nextAfter(fired, interval, now));
        };
    }
    return {first, std::move(next), [entry] { ScheduleHandler::runTimerTask(entry); }};
}

// The function that starts the entry's timer; null if its "RunAt" is invalid.
std::function<void()> ScheduleHandler::starter(const Dictionary& entry, bool daily) {
    const auto name = nameOf(entry);
    if (!daily) {
        const auto run = [entry] {
            if (entry[kTaskStatus] == Value(kEnabled)) {
                ScheduleHandler::runTask(entry);
            }
        };
        return [this, name, run, interval = intervalOf(entry), repeats = entry[kRepeat].boolValue()] {
            tasks_.startActivity(name, interval, repeats, run);
        };
    }
    const auto time = DailyTime::parse(entry[kRunAt].description());
    if (!time) {
        kLog.error("Task {} is not scheduled: its RunAt \"{}\" is not a time of day (HH:mm:ss)", name, entry[kRunAt]);
        return nullptr;
    }
    return [this, name, timer = dailyTimer(entry, *time)] { tasks_.startDaily(name, timer); };
}

// Retries while the host refuses a timer or a thread, for as long as isWanted returns true.
void ScheduleHandler::startTasks(std::string_view name, const std::function<bool()>& isWanted) {
    kLog.info("Going to StartTask {}", name);
    if (tasks_.activity(name)) {
        stopTask(name);
    }
    MutexLock lock(tasks_.starting);
    for (const auto& entry : entriesToStart(name)) {
        const bool daily = name == kAll && !entry[kRunAt].isNull();
        const auto start = starter(entry, daily);
        if (!start) {
            continue;
        }
        retryUntilGranted("start of task " + nameOf(entry), [&] {
            if (isWanted()) {
                start();
            }
        });
        if (!isWanted()) {
            return;
        }
        kLog.info("ScheduleHandler {} has been scheduled", nameOf(entry));
    }
}

std::shared_ptr<ScheduleHandler> ScheduleHandler::init() {
    kLog.debug("ScheduleHandler init called");
    initRealTimeStatus();
    auto handler = scheduler().shared_from_this();
    if (!handler->isAnnounced_.exchange(true)) {
        kLog.debug("ScheduleHandler initialised");
    }
    return handler;
}

void ScheduleHandler::start() {
    kLog.debug("ScheduleHandler start called");
    if (!canStart()) {
        kLog.error("ScheduleHandler start failed");
        return;
    }
    started();
    // The change handlers of the first configuration sync may have started some tasks already.
    tasks_.endAll();
    startTasks(kAll, [this] { return !isCancelled(); });
    completeOperation();
}

void ScheduleHandler::cancel() {
    cancelOperation();
}

void ScheduleHandler::CheckEventDatasize() {
    try {
        kLog.debug("Going to check EventData folder size");
        const auto size = FileUtils::getFoldersize(configuration_.eventDataPath());
        std::int64_t limit = 0;
        if (__builtin_mul_overflow(configuration_.eventDataSize(), kBytesPerGigabyte, &limit)) {
            limit = configuration_.eventDataSize() > 0 ? std::numeric_limits<std::int64_t>::max()
                                                       : std::numeric_limits<std::int64_t>::min();
        }
        const bool reached = size >= limit;
        if (reached) {
            kLog.info("EventCollection has to be stopped as event data has reached max size");
        }
        configuration_.setMaxEventDataSizeReached(reached);
    } catch (const std::exception& exception) {
        kLog.error("{}", exception.what());
    }
}

void ScheduleHandler::startTask(std::string_view name) {
    scheduler().startTasks(name, [] { return true; });
}

bool ScheduleHandler::runsEvery(const Value& intervalSeconds, std::string_view task) {
    const auto activity = scheduler().tasks_.activity(task);
    return activity && activity->hasFurtherRun() &&
           activity->interval() == parsedInterval(intervalSeconds).value_or(kDefaultInterval) &&
           activity->repeats() == getProperty(kRepeat, task).boolValue();
}

void ScheduleHandler::initiateTimer(const Dictionary& entry) {
    if (const auto time = DailyTime::parse(entry[kRunAt].description())) {
        scheduler().tasks_.runDaily(nameOf(entry), scheduler().dailyTimer(entry, *time));
    }
}

void ScheduleHandler::runTimerTask(const Dictionary& entry) {
    runTask(entry);
}

void ScheduleHandler::runTask(const Dictionary& entry) {
    const auto name = nameOf(entry);
    UpdateTaskWithName(name, kLastScheduleTimeInMillis, scheduler().clock_.epochSeconds());
    UpdateTaskWithName(name, kLastScheduleTime, Utilities::getCurrentTimeInFormat("E, d MMM yyyy HH:mm:ss Z"));
    const auto className = entry[kClassName].description();
    const auto selector = entry[kSelector].description();
    switch (scheduler().registry_.run(className, selector)) {
        case TaskRegistry::Outcome::ran:
            break;
        case TaskRegistry::Outcome::unknownClass:
            kLog.error("Task {} cannot run: there is no class {}", name, className);
            break;
        case TaskRegistry::Outcome::unknownMethod:
            kLog.error("Task {} cannot run: {} has no method {}", name, className, selector);
            break;
    }
}

void ScheduleHandler::stopTask(std::string_view name) {
    if (scheduler().tasks_.stopActivity(name)) {
        kLog.info("{} schedule has been stopped", name);
    } else {
        kLog.info("{} is not available in the list", name);
    }
}

void ScheduleHandler::stopAllTasks() {
    for (const auto& [name, activity] : scheduler().tasks_.activities()) {
        kLog.info("{} has been stopped", activity->identifier());
        activity->invalidate();
    }
    kLog.info("All Tasks stopped");
}

void ScheduleHandler::UpdateTaskWithName(std::string_view name, std::string_view withKey, const Value& withValue) {
    PropertyListHandler::change(scheduler().taskListFile(), [&](Dictionary& file) {
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
        kLog.debug("{} going to write to schedules.plist", Value(file));
    });
}

Value ScheduleHandler::getProperty(std::string_view key, std::string_view ofTask) {
    for (const auto& entry : scheduler().taskEntries().value_or(std::vector<Dictionary>())) {
        if (entry[kTaskName] == Value(ofTask)) {
            return entry[key];
        }
    }
    return {};
}

void ScheduleHandler::initRealTimeStatus() {
    kLog.info("updating EventCollection schedule");
    UpdateTaskWithName(kEventCollection, kRepeat, scheduler().configuration_.isRealTime() ? "false" : "true");
}

std::string ScheduleHandler::description() {
    Dictionary list;
    for (const auto& [name, activity] : scheduler().tasks_.activities()) {
        list.set(name, activity->identifier());
    }
    return "Printing the task array " + Value(std::move(list)).description();
}

}  // namespace sentrova
