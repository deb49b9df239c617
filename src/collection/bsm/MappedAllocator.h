// Memory mapped directly from the host, for blocks that are occasionally large.
//
// The C library may keep freed memory: after a few long records an idle agent would hold tens of MiB permanently.

#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <new>

namespace sentrova::bsm {

// For containers. Each allocation is a separate mapping, which is returned to the host when freed. Throws
// std::bad_alloc.
template <class T>
struct MappedAllocator {
    using value_type = T;

    T* allocate(std::size_t count) {
        auto* const mapping = ::mmap(nullptr, count * sizeof(T), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANON, -1, 0);
        if (mapping == MAP_FAILED) {
            throw std::bad_alloc();
        }
        return static_cast<T*>(mapping);
    }
    void deallocate(T* mapping, std::size_t count) { ::munmap(mapping, count * sizeof(T)); }

    friend bool operator==(const MappedAllocator& /*one*/, const MappedAllocator& /*other*/) { return true; }
};

}  // namespace sentrova::bsm
