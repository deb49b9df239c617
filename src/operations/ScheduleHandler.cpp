#include "operations/ScheduleHandler.h"

#include "collection/EventCollectionSchedule.h"
#include "core/FileUtils.h"
#include "core/GlobalConstants.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "core/PropertyListHandler.h"
#include "core/Utilities.h"
#include "foundation/DateFormat.h"
#include "foundation/Mutex.h"
#include "foundation/ProcessWide.h"
#include "foundation/Retry.h"
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

const TaskRegistry::Registration kSizeGuard("ScheduleHandler", "CheckEventDatasize",
                                            [] { ScheduleHandler::init()->CheckEventDatasize(); });

std::string taskListFile() {
    return fmt::format("{}/{}", GlobalVariables::getInstance().confPath(), GlobalConstants::SCHEDULES_FILE);
}

// Nothing when the file is there, but the host cannot give its content.
std::optional<std::vector<Dictionary>> taskEntries() {
    const auto file = PropertyListHandler::initWithFile(taskListFile());
    if (file.isUnread()) {
        return std::nullopt;
    }
    const auto tasks = file.GetValueForKey(ScheduleHandler::kScheduleTasks);
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

// The interval to a microsecond, at most ten years; nothing for what is not above zero.
std::optional<Interval> parsedInterval(const Value& value) {
    constexpr std::chrono::hours kLongest{24 * 366 * 10};
    using Seconds = std::chrono::duration<double>;
    const Seconds seconds(value.doubleValue());
    if (seconds >= kLongest) {
        return kLongest;
    }
    // Not a number is neither above nor below.
    const auto interval = seconds > Seconds::zero() ? std::chrono::round<Interval>(seconds) : Interval::zero();
    return interval > Interval::zero() ? std::optional(interval) : std::nullopt;
}

Interval intervalOf(const Dictionary& entry) {
    const auto& value = entry[ScheduleHandler::kIntervalSeconds];
    const auto interval = parsedInterval(value);
    if (!interval) {
        kLog.error(__func__, "The interval of task {} is {}; it is taken as {} seconds", nameOf(entry), value,
                   ScheduleHandler::kDefaultInterval.count());
    }
    return interval.value_or(ScheduleHandler::kDefaultInterval);
}

ProcessWide<TaskList> theTaskList;

// The entries of the name, or all, in file order. Of several entries with the same name the last one holds. While the
// file cannot be read, the entries that were read before hold: a task that is started anew must not vanish. The caller
// holds the task list's mutex for starts.
std::vector<Dictionary> entriesToStart(std::string_view name) REQUIRES(theTaskList.get().starting) {
    auto& known = theTaskList.get().entries;
    if (auto present = taskEntries()) {
        known = *std::move(present);
    } else {
        kLog.error("startTask", "Tasks are started as {} had them before", taskListFile());
    }
    std::vector<Dictionary> entries;
    for (const auto& entry : known) {
        if (name != ScheduleHandler::kAll && entry[ScheduleHandler::kTaskName] != Value(name)) {
            continue;
        }
        if (std::erase_if(entries, [&](const auto& other) { return nameOf(other) == nameOf(entry); }) > 0) {
            kLog.error("startTask", "Task {} is in {} more than once; only its last entry is scheduled", nameOf(entry),
                       taskListFile());
        }
        entries.push_back(entry);
    }
    return entries;
}

TaskList::Daily dailyTimer(const Dictionary& entry, const DailyTime& time) {
    const auto first = time.firstAfter(Clock::shared().wallTime());
    if (LogSource::isWritten(LogLevel::Info)) {
        kLog.info("initiateTimer", "Next fire time for {} is {}", nameOf(entry),
                  DateFormat::format("yyyy-MM-dd HH:mm:ss zzz", first));
    }
    Timer::Next next = [](Date, Date) { return std::optional<Date>(); };
    if (entry[ScheduleHandler::kRepeat].boolValue()) {
        next = [time, interval = intervalOf(entry)](Date fired, Date now) {
            return std::optional(time.nextAfter(fired, interval, now));
        };
    }
    return {first, std::move(next), [entry] { ScheduleHandler::runTimerTask(entry); }};
}

// How an entry's timer is set. Nothing when its daily time is none.
std::function<void()> starter(const Dictionary& entry, bool daily) {
    const auto name = nameOf(entry);
    if (!daily) {
        const auto run = [entry] {
            if (entry[ScheduleHandler::kTaskStatus] == Value(ScheduleHandler::kEnabled)) {
                ScheduleHandler::runTask(entry);
            }
        };
        return [=, interval = intervalOf(entry), repeats = entry[ScheduleHandler::kRepeat].boolValue()] {
            theTaskList.get().startActivity(name, interval, repeats, run);
        };
    }
    const auto time = DailyTime::parse(entry[ScheduleHandler::kRunAt].description());
    if (!time) {
        kLog.error("startTask", "Task {} is not scheduled: its RunAt \"{}\" is no time of day (HH:mm:ss)", name,
                   entry[ScheduleHandler::kRunAt]);
        return nullptr;
    }
    return [name, timer = dailyTimer(entry, *time)] { theTaskList.get().startDaily(name, timer); };
}

// While the host refuses a timer or a thread, the start is tried again, for as long as it is wanted.
void startTasks(std::string_view name, const std::function<bool()>& isWanted) {
    kLog.info("startTask", "Going to StartTask {}", name);
    if (theTaskList.get().activity(name)) {
        ScheduleHandler::stopTask(name);
    }
    MutexLock lock(theTaskList.get().starting);
    for (const auto& entry : entriesToStart(name)) {
        const bool daily = name == ScheduleHandler::kAll && !entry[ScheduleHandler::kRunAt].isNull();
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
        kLog.info("startTask", "ScheduleHandler {} has been scheduled", nameOf(entry));
    }
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
    // The change handlers of the first configuration sync may have started some.
    theTaskList.get().endAll();
    startTasks(kAll, [this] { return !isCancelled(); });
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
    startTasks(name, [] { return true; });
}

bool ScheduleHandler::runsEvery(const Value& intervalSeconds, std::string_view task) {
    const auto activity = theTaskList.get().activity(task);
    return activity && activity->hasFurtherRun() &&
           activity->interval() == parsedInterval(intervalSeconds).value_or(kDefaultInterval) &&
           activity->repeats() == getProperty(kRepeat, task).boolValue();
}

void ScheduleHandler::initiateTimer(const Dictionary& entry) {
    if (const auto time = DailyTime::parse(entry[kRunAt].description())) {
        theTaskList.get().runDaily(nameOf(entry), dailyTimer(entry, *time));
    }
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
    if (theTaskList.get().stopActivity(name)) {
        kLog.info(__func__, "{} schedule has been stopped", name);
    } else {
        kLog.info(__func__, "{} is not available in the list", name);
    }
}

void ScheduleHandler::stopAllTasks() {
    for (const auto& [name, activity] : theTaskList.get().activities()) {
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
    for (const auto& entry : taskEntries().value_or(std::vector<Dictionary>())) {
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
    for (const auto& [name, activity] : theTaskList.get().activities()) {
        list.set(name, activity->identifier());
    }
    return "Printing the task array " + Value(std::move(list)).description();
}

}  // namespace sentrova
