// Descriptors and child processes: a child gets the standard streams and nothing else.

#pragma once

#include "foundation/files/FileDescriptor.h"

#include <spawn.h>

#include <optional>

namespace sentrova::platform {

struct Pipe {
    FileDescriptor reading;
    FileDescriptor writing;
};

// A pipe whose ends no child inherits; nothing, with errno set, when the system has no descriptors for it.
std::optional<Pipe> makePipe();

// Lets the child that is to be spawned inherit its standard streams alone. Called after the other file actions have
// been added; may add flags to the attributes. Returns 0 or an error number.
int inheritStandardStreamsAlone(posix_spawn_file_actions_t& actions, posix_spawnattr_t& attributes);

}  // namespace sentrova::platform
