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

// The child inherits standard input, standard error, the environment and the working directory. It inherits no other
// descriptor and no ignored signal. For one thread at a time.
class Process {
  public:
    Process(std::string launchPath, std::vector<std::string> arguments);
    // Waits for the child to exit.
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Throws ProcessLaunchError if the program cannot be started, or was started before.
    void launch();

    // Blocks for the next piece of output. Empty at the end of the output and on an error.
    Data readAvailableData();
    // Blocks until the end of the output and returns all of it.
    Data readDataToEndOfFile();

    // Asks the child to end (SIGTERM).
    void terminate();
    void waitUntilExit();

    // The status if the system does not tell it. Counts as a failure.
    static constexpr int kUnknownStatus = -1;

    // Valid after waitUntilExit: the program's exit status, the number of the signal that ended it, or kUnknownStatus.
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
