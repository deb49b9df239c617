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
#include "foundation/Timer.h"
#include "foundation/Value.h"
#include "operations/ConcurrentOperationAbstract.h"

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

namespace sentrova {

// As an operation it starts all tasks, and is finished when that is done.
class ScheduleHandler final : public ConcurrentOperationAbstract {
  public:
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

    // The one object of the process. Each call also rewrites whether "EventCollection" repeats.
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
    ScheduleHandler();
    friend struct SharedSchedule;
};

}  // namespace sentrova
