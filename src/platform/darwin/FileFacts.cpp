#include "platform/FileFacts.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace sentrova::platform {

Date modificationDate(const struct stat& status) {
    return Date(std::chrono::duration_cast<Date::duration>(std::chrono::seconds(status.st_mtimespec.tv_sec) +
                                                           std::chrono::nanoseconds(status.st_mtimespec.tv_nsec)));
}

int flushToDisk(int descriptor) {
    // fsync alone leaves the content in the drive's cache. Volumes that do not support F_FULLFSYNC, such as network
    // volumes, get fsync.
    if (::fcntl(descriptor, F_FULLFSYNC) != -1 || ::fsync(descriptor) == 0) {
        return 0;
    }
    return errno;
}

}  // namespace sentrova::platform
