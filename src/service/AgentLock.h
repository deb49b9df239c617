// Keeps a second agent out of an installation, where it would deliver every event a second time.

#pragma once

#include "foundation/files/FileDescriptor.h"
#include "foundation/files/FileSystem.h"

#include <stdexcept>

namespace sentrova {

class AlreadyRunningError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;

    // What the process exits with (sysexits' "temporary failure"; the service manager tries again).
    static constexpr int kExitStatus = 75;
};

// Holds `agent.lock` of the configuration folder for as long as the object lives. The file has the process id in it and
// is never removed. The kernel ends the lock with the process, so a killed agent leaves none behind.
class AgentLock {
  public:
    // Takes the lock. Throws AlreadyRunningError, and changes nothing, when another process has it. Where there can be
    // no lock (a full disk, a missing folder, a link in the file's place) the agent runs without one, since that is
    // better than to collect nothing; a line in the log says so.
    explicit AgentLock(FileSystem& files);

  private:
    FileDescriptor file_;
};

}  // namespace sentrova
