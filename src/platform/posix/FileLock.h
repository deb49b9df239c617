// The lock by which a file of an installation tells that its agent runs.

#pragma once

#include "foundation/files/FileDescriptor.h"
#include "foundation/value/Result.h"

#include <sys/types.h>

#include <optional>
#include <string>

namespace sentrova::platform {

// Locks the open file for this process, until it ends or closes the file. Returns 0, or an error number: EWOULDBLOCK if
// another process holds the lock.
int lockFile(int file);

// Keeps every agent from starting for as long as the descriptor is open. The state of the lock names no holder, so that
// nobody sends this process an agent's signals. Creates a missing file and keeps the content of an existing one. Fails
// with EWOULDBLOCK if another process holds the lock.
Result<FileDescriptor> lockOut(const std::string& path);

struct LockState {
    bool isHeld = false;
    // The process that holds the lock, as the kernel tells it. Absent for a lock of another kind.
    std::optional<pid_t> holder;
};

// The state of the file's lock. A file that is missing or cannot be opened is not locked.
LockState lockState(const std::string& path);

}  // namespace sentrova::platform
