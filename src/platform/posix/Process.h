// A child process whose standard output is read through a pipe.

#pragma once

#include "foundation/files/FileDescriptor.h"
#include "foundation/value/Value.h"

#include <sys/types.h>

#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace sentrova::platform {

class ProcessLaunchError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Used by one thread at a time. Standard input and error are inherited, the environment and the working directory too;
// no other descriptor and no ignored signal is.
class Process {
  public:
    Process(std::string launchPath, std::vector<std::string> arguments);
    // Waits for a child that still runs.
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Throws ProcessLaunchError when the program cannot be started, or was started before.
    void launch();

    // The next piece of the output as soon as there is one; empty at its end and on an error.
    Data readAvailableData();
    Data readDataToEndOfFile();

    // Asks the child to end (SIGTERM).
    void terminate();
    void waitUntilExit();

    // When the system does not tell the status: no success.
    static constexpr int kUnknownStatus = -1;

    // After waitUntilExit: what the program passed to exit, the number of the signal that ended it, or kUnknownStatus.
    int terminationStatus() const { return terminationStatus_; }

  private:
    const std::string launchPath_;
    const std::vector<std::string> arguments_;
    FileDescriptor output_;
    pid_t child_ = -1;
    bool running_ = false;
    int terminationStatus_ = 0;
};

}  // namespace sentrova::platform
