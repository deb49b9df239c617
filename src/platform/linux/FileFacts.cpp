#include "platform/FileFacts.h"

#include <unistd.h>

#include <cerrno>

namespace sentrova::platform {

Date modificationDate(const struct stat& status) {
    return Date(std::chrono::duration_cast<Date::duration>(std::chrono::seconds(status.st_mtim.tv_sec) +
                                                           std::chrono::nanoseconds(status.st_mtim.tv_nsec)));
}

int flushToDisk(int descriptor) {
    return ::fsync(descriptor) == 0 ? 0 : errno;
}

}  // namespace sentrova::platform
