// Makes sure that a child process inherits the standard streams and no other descriptor.

#pragma once

#include "foundation/files/FileDescriptor.h"

#include <spawn.h>

#include <optional>

namespace sentrova::platform {

struct Pipe {
    FileDescriptor reading;
    FileDescriptor writing;
};

// A pipe whose ends no child inherits. Absent, with errno set, if the system has no descriptors left.
std::optional<Pipe> makePipe();

// Prepares a spawn so that the child inherits only its standard streams. Call it after all other file actions are
// added. May add flags to the attributes. Returns 0 or an error number.
int inheritStandardStreamsAlone(posix_spawn_file_actions_t& actions, posix_spawnattr_t& attributes);

}  // namespace sentrova::platform
