#include "platform/ChildDescriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>

namespace sentrova::platform {

std::optional<Pipe> makePipe() {
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0) {
        return std::nullopt;
    }
    // A child that is spawned before this has happened does not inherit them either: see below.
    for (const int end : ends) {
        ::fcntl(end, F_SETFD, FD_CLOEXEC);
    }
    return Pipe{FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

int inheritStandardStreamsAlone(posix_spawn_file_actions_t& actions, posix_spawnattr_t& attributes) {
    // Everything that no file action names is closed. Standard output has an action of its own.
    short flags = 0;
    ::posix_spawnattr_getflags(&attributes, &flags);
    int problem = ::posix_spawnattr_setflags(&attributes, static_cast<short>(flags | POSIX_SPAWN_CLOEXEC_DEFAULT));
    for (const int stream : {STDIN_FILENO, STDERR_FILENO}) {
        // A stream that the agent itself was started without is none to inherit.
        if (problem == 0 && ::fcntl(stream, F_GETFD) >= 0) {
            problem = ::posix_spawn_file_actions_addinherit_np(&actions, stream);
        }
    }
    return problem;
}

}  // namespace sentrova::platform
