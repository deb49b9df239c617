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
    // Posted for each piece of the output of a program that runs in the background, on a thread of the runner's, with
    // the bytes under kOutputItem; an empty piece is the end. The object is the runner.
    static constexpr const char* kReadCompletionNotification = "NSFileHandleReadCompletionNotification";
    static constexpr const char* kOutputItem = "NSFileHandleNotificationDataItem";

    TaskManager(const std::string& launchPath, std::vector<std::string> withArgs);
    // Waits for the program.
    ~TaskManager();
    TaskManager(const TaskManager&) = delete;
    TaskManager& operator=(const TaskManager&) = delete;

    // Returns when the program has exited, with its whole output read. Throws ProcessLaunchError when it cannot be
    // started.
    void launchTaskSync();
    // Returns at once; the output comes by notification. Throws ProcessLaunchError like launchTaskSync.
    void launchTaskAsync();

    // Asks the program to end.
    void stop();
    // Returns when the program has exited.
    void wait();

    // After launchTaskSync: what the program wrote, and its exit status cut to 8 bits.
    const Data& output() const { return output_; }
    std::int8_t taskStatus() const { return taskStatus_; }

  private:
    platform::Process prauditTask_;
    Data output_;
    std::int8_t taskStatus_ = 0;
    std::thread reader_;
};

}  // namespace sentrova
