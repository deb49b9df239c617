// Runs the agent's periodic tasks, which the file `schedules.plist` of the configuration folder lists.
//
// The file is a property list with one key, "ScheduleTasks": an array with one dictionary per task. The keys of an
// entry are below. An entry names a class and a method. Each time the task fires, the entry is stamped with the time,
// and the method is called: see TaskRegistry.
//
// A task with "RunAt" that is started together with all others runs at that time of day, on its own thread. Every other
// task is a background activity. A task has one timer: starting the task again ends its previous timer. Two runs of a
// task never overlap. An entry is read when its task is started. Safe from any thread. Each change of the file reads
// and rewrites the whole file in one step.

#pragma once

#include "core/GlobalConstants.h"
#include "core/GlobalVariables.h"
#include "foundation/run/Clock.h"
#include "foundation/time/DateFormat.h"
#include "foundation/value/Value.h"
#include "operations/ConcurrentOperationAbstract.h"
#include "operations/DailyTime.h"
#include "operations/TaskList.h"
#include "operations/TaskRegistry.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova {

// As an operation, it starts all tasks and finishes.
class ScheduleHandler final : public ConcurrentOperationAbstract, public std::enable_shared_from_this<ScheduleHandler> {
  public:
    // The task that runs batch collection.
    static constexpr std::string_view kEventCollection = "EventCollection";
    // The name that means every task.
    static constexpr std::string_view kAll = "ALL";

    // The keys of the file and of its entries.
    static constexpr std::string_view kScheduleTasks = GlobalConstants::SCHEDULE_TASKS;
    static constexpr std::string_view kTaskName = GlobalConstants::TASK_NAME;
    // A time of day, "HH:mm:ss", in the device's zone.
    static constexpr std::string_view kRunAt = GlobalConstants::RUN_AT;
    // A real number of seconds, rounded to microseconds.
    static constexpr std::string_view kIntervalSeconds = GlobalConstants::INTERVAL_SECONDS;
    static constexpr std::string_view kRepeat = GlobalConstants::REPEAT;
    // A background activity runs its task only if the value is kEnabled.
    static constexpr std::string_view kTaskStatus = GlobalConstants::TASK_STATUS;
    static constexpr std::string_view kEnabled = GlobalConstants::TASK_ENABLED;
    static constexpr std::string_view kClassName = GlobalConstants::CLASS_NAME;
    static constexpr std::string_view kSelector = GlobalConstants::SELECTOR;
    static constexpr std::string_view kLastScheduleTime = GlobalConstants::LAST_SCHEDULE_TIME;
    // Despite its name: whole seconds since 1970 of the last run.
    static constexpr std::string_view kLastScheduleTimeInMillis = GlobalConstants::LAST_SCHEDULE_TIME_IN_MILLIS;

    // Used if the interval is missing or not above zero. Such an interval would run the task without pause.
    static constexpr std::chrono::seconds kDefaultInterval{60};

    // All arguments must outlive the object.
    ScheduleHandler(TaskList& tasks, const TaskRegistry& registry, GlobalVariables& configuration, Clock& clock,
                    DateFormat& dates);

    // Returns the agent's ScheduleHandler. Each call also runs initRealTimeStatus.
    static std::shared_ptr<ScheduleHandler> init();

    void start() override;
    void cancel() override;

    // Sets maxEventDataSizeReached in the configuration: whether the spool has reached its size limit.
    void CheckEventDatasize();

    // Starts one task, or all with kAll. A task that is started by its name runs by its interval, even if it has
    // "RunAt". Of several entries with one name, the last one is started. While the host refuses a timer or a thread,
    // the call retries and does not return.
    static void startTask(std::string_view name);
    // Whether the task's background activity already has that interval, repeats as its entry says, and will run again.
    // Restarting such a task would only set its timer back.
    static bool runsEvery(const Value& intervalSeconds, std::string_view task);
    // Stops the task's background activity. A daily timer is not stopped.
    static void stopTask(std::string_view name);
    // Stops all background activities. They stay in the list.
    static void stopAllTasks();

    // Stamps the entry with the current time and calls its method, on the calling thread.
    static void runTask(const Dictionary& entry);
    // Called each time a daily timer fires.
    static void runTimerTask(const Dictionary& entry);
    // Runs the daily timer of the entry on the calling thread. Returns when the timer has ended.
    static void initiateTimer(const Dictionary& entry);

    // Sets the key in every entry with that name; kAll means every entry.
    static void UpdateTaskWithName(std::string_view name, std::string_view withKey, const Value& withValue);
    // The key's value in the first entry with that name; an empty value if there is no such entry.
    static Value getProperty(std::string_view key, std::string_view ofTask);
    // Writes the "Repeat" of batch collection: true while realtime collection is off.
    static void initRealTimeStatus();

    // The names of the background activities, for the log.
    static std::string description();

  private:
    std::string taskListFile() const;
    std::optional<std::vector<Dictionary>> taskEntries() const;
    std::vector<Dictionary> entriesToStart(std::string_view name) REQUIRES(tasks_.starting);
    TaskList::Daily dailyTimer(const Dictionary& entry, const DailyTime& time);
    std::function<void()> starter(const Dictionary& entry, bool daily);
    void startTasks(std::string_view name, const std::function<bool()>& isWanted) EXCLUDES(tasks_.starting);

    TaskList& tasks_;
    const TaskRegistry& registry_;
    GlobalVariables& configuration_;
    Clock& clock_;
    DateFormat& dates_;
    std::atomic<bool> isAnnounced_ = false;
};

}  // namespace sentrova
