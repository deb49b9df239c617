#include "platform/ChildDescriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>

namespace sentrova::platform {

std::optional<Pipe> makePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    return Pipe{FileDescriptor(ends[0]), FileDescriptor(ends[1])};
}

int inheritStandardStreamsAlone(posix_spawn_file_actions_t& actions, posix_spawnattr_t& /*attributes*/) {
    // Closes all other descriptors, because libraries open some without O_CLOEXEC.
    return ::posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
}

}  // namespace sentrova::platform
