// What this process takes up.

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
    // Bytes that are allocated and not freed; 0 under a sanitizer, which allocates by itself.
    std::size_t memory = ::mallinfo2().uordblks;
};

}  // namespace sentrova::testing
