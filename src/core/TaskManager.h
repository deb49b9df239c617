// Runs an external program with its standard output captured. Used by one thread at a time.

#pragma once

#include "foundation/value/Value.h"
#include "platform/posix/Process.h"

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace sentrova {

class TaskManager {
  public:
    // Posted for each piece of output of a program started by launchTaskAsync. The bytes are under kOutputItem; an
    // empty piece marks the end. The sender is this object. Posted on this object's own thread.
    static constexpr const char* kReadCompletionNotification = "NSFileHandleReadCompletionNotification";
    static constexpr const char* kOutputItem = "NSFileHandleNotificationDataItem";

    TaskManager(const std::string& launchPath, std::vector<std::string> withArgs);
    // Waits for the program to exit.
    ~TaskManager();
    TaskManager(const TaskManager&) = delete;
    TaskManager& operator=(const TaskManager&) = delete;

    // Runs the program and returns when it has exited and its whole output is read. Throws ProcessLaunchError if the
    // program cannot be started.
    void launchTaskSync();
    // Starts the program and returns at once. Its output arrives in notifications. Throws ProcessLaunchError if the
    // program cannot be started.
    void launchTaskAsync();

    // Asks the program to end (SIGTERM).
    void stop();
    // Blocks until the program has exited.
    void wait();

    // Valid after launchTaskSync: the program's output, and its exit status cut to 8 bits.
    const Data& output() const { return output_; }
    std::int8_t taskStatus() const { return taskStatus_; }

  private:
    platform::Process prauditTask_;
    Data output_;
    std::int8_t taskStatus_ = 0;
    std::thread reader_;
};

}  // namespace sentrova
