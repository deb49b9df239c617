// The memory of this process.

#pragma once

#include <malloc.h>

#include <cstddef>
#include <filesystem>
#include <iterator>

namespace sentrova::testing {

struct Footprint {
    static std::size_t entriesOf(const char* folder) {
        const std::filesystem::directory_iterator entries(folder);
        return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
    }

    std::size_t descriptors = entriesOf("/proc/self/fd");
    std::size_t threads = entriesOf("/proc/self/task");
    // The number of allocated bytes. 0 under a sanitizer, which has its own allocator.
    std::size_t memory = ::mallinfo2().uordblks;
};

}  // namespace sentrova::testing
