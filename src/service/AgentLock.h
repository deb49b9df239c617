// Prevents a second agent in the same installation, which would deliver every event twice.

#pragma once

#include "foundation/files/FileDescriptor.h"
#include "foundation/files/FileSystem.h"

#include <stdexcept>

namespace sentrova {

class AlreadyRunningError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;

    // The exit status of the process (sysexits' "temporary failure"; the service manager tries again).
    static constexpr int kExitStatus = 75;
};

// Locks `agent.lock` in the configuration folder for the lifetime of the object. The file contains the process id and
// is never removed. The kernel releases the lock when the process ends, even if it is killed.
class AgentLock {
  public:
    // Takes the lock. Throws AlreadyRunningError if another process holds it; nothing has changed then. If locking is
    // impossible (full disk, missing folder, link in place of the file), the agent runs without the lock, with a line
    // in the log: that is better than collecting nothing.
    explicit AgentLock(FileSystem& files);

  private:
    FileDescriptor file_;
};

}  // namespace sentrova
