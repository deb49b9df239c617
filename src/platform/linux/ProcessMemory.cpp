#include "platform/ProcessMemory.h"

#include <unistd.h>

#include <fstream>

namespace sentrova::platform {

std::optional<std::uint64_t> residentMemory() {
    // In pages: the size of the address space, and the resident part of it.
    std::ifstream file("/proc/self/statm");
    std::uint64_t size = 0;
    std::uint64_t resident = 0;
    if (!(file >> size >> resident)) {
        return std::nullopt;
    }
    return resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace sentrova::platform
