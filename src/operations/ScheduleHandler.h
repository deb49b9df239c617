// Runs the agent's periodic tasks from the task list file `schedules.plist` of the configuration folder.
//
// The file is a property list with one key, "ScheduleTasks": an array of dictionaries, one a task, with the keys below.
// An entry names a class and a method; each firing stamps the entry with the time and calls the method on a new object.
// A task with "RunAt" that is started together with all others runs at that time of day, on a thread of its own; every
// other task is a background activity. A task has one timer: starting it again ends the timer that it had. Two runs of
// a task never overlap. An entry is read when its task is started. Safe from any thread; each change of the file reads
// and rewrites it whole, as one step.

#pragma once

#include "core/GlobalConstants.h"
#include "core/GlobalVariables.h"
#include "foundation/time/Clock.h"
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

// As an operation it starts all tasks, and is finished when that is done.
class ScheduleHandler final : public ConcurrentOperationAbstract, public std::enable_shared_from_this<ScheduleHandler> {
  public:
    // The task of batch collection.
    static constexpr std::string_view kEventCollection = "EventCollection";
    // Stands for every task.
    static constexpr std::string_view kAll = "ALL";

    // The keys of the file and of its entries.
    static constexpr std::string_view kScheduleTasks = GlobalConstants::SCHEDULE_TASKS;
    static constexpr std::string_view kTaskName = GlobalConstants::TASK_NAME;
    // A time of day, "HH:mm:ss", in the device's zone.
    static constexpr std::string_view kRunAt = "RunAt";
    // A real number; only microseconds count.
    static constexpr std::string_view kIntervalSeconds = "IntervalSeconds";
    static constexpr std::string_view kRepeat = "Repeat";
    // Anything but kEnabled keeps a background activity from running its task.
    static constexpr std::string_view kTaskStatus = "TaskStatus";
    static constexpr std::string_view kEnabled = "Enable";
    static constexpr std::string_view kClassName = "className";
    static constexpr std::string_view kSelector = "selector";
    static constexpr std::string_view kLastScheduleTime = "LastScheduleTime";
    // Whole seconds since 1970 of the last run, in spite of its name.
    static constexpr std::string_view kLastScheduleTimeInMillis = "LastScheduleTimeInMillis";

    // Replaces an interval that is missing or not above zero, which would never let go of the processor.
    static constexpr std::chrono::seconds kDefaultInterval{60};

    // What is passed in must outlive the object.
    ScheduleHandler(TaskList& tasks, const TaskRegistry& registry, GlobalVariables& configuration, Clock& clock,
                    DateFormat& dates);

    // The agent's one. Each call also rewrites whether "EventCollection" repeats.
    static std::shared_ptr<ScheduleHandler> init();

    void start() override;
    void cancel() override;

    // Sets the configuration's maxEventDataSizeReached by the size of the spool and its limit.
    void CheckEventDatasize();

    // Started by its name, a task runs by its interval, even with "RunAt". Of several entries of one name the last is
    // started. While the host refuses a timer or a thread, the call does not return: it tries again.
    static void startTask(std::string_view name);
    // Whether the task's background activity has that interval already, repeats as its entry says, and will run again.
    // Starting the task anew with the interval would only set its timer back.
    static bool runsEvery(const Value& intervalSeconds, std::string_view task);
    // Stops a background activity. A daily task cannot be stopped.
    static void stopTask(std::string_view name);
    // Stops all background activities, which stay in the list.
    static void stopAllTasks();

    // Stamps the entry and calls its method on the calling thread.
    static void runTask(const Dictionary& entry);
    // A daily task's firing.
    static void runTimerTask(const Dictionary& entry);
    // Runs a daily task on the calling thread; does not return while its timer lives.
    static void initiateTimer(const Dictionary& entry);

    // Sets the key in every entry of the name.
    static void UpdateTaskWithName(std::string_view name, std::string_view withKey, const Value& withValue);
    // The key's value in the first entry of the name; empty when there is none.
    static Value getProperty(std::string_view key, std::string_view ofTask);
    // Batch collection repeats while realtime collection is off.
    static void initRealTimeStatus();

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
