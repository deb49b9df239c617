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
    // A child spawned between pipe and fcntl does not inherit the ends either: see the flag below.
    for (const int end : ends) {
        ::fcntl(end, F_SETFD, FD_CLOEXEC);
    }
    return Pipe{FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

int inheritStandardStreamsAlone(posix_spawn_file_actions_t& actions, posix_spawnattr_t& attributes) {
    // The flag closes every descriptor that no file action names. The caller has an action for standard output.
    short flags = 0;
    ::posix_spawnattr_getflags(&attributes, &flags);
    int problem = ::posix_spawnattr_setflags(&attributes, static_cast<short>(flags | POSIX_SPAWN_CLOEXEC_DEFAULT));
    for (const int stream : {STDIN_FILENO, STDERR_FILENO}) {
        // Skips a stream that the agent itself was started without.
        if (problem == 0 && ::fcntl(stream, F_GETFD) >= 0) {
            problem = ::posix_spawn_file_actions_addinherit_np(&actions, stream);
        }
    }
    return problem;
}

}  // namespace sentrova::platform
