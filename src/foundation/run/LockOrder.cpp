#include "foundation/run/LockOrder.h"

#ifndef NDEBUG

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace sentrova {

namespace {

// The mutexes that the current thread holds, in the order of acquisition. A plain struct without a destructor, because
// destructors of other thread-local objects still take locks while the thread ends.
struct Held {
    std::array<LockOrder*, 32> locks;
    std::size_t count;
};

thread_local Held held{};

}  // namespace

// Compares with every held mutex and not only with the latest one: a mutex may be released out of order. Equal ranks
// are a breach too, since nothing orders two mutexes of one rank.
void LockOrder::wanted() {
    for (std::size_t i = 0; i < held.count; ++i) {
        const auto& other = *held.locks[i];
        if (other.rank_ >= rank_) {
            std::fprintf(stderr, "lock order: a mutex of rank %d is taken under one of rank %d\n",
                         static_cast<int>(rank_), static_cast<int>(other.rank_));
            std::abort();
        }
    }
}

void LockOrder::taken() {
    if (held.count == held.locks.size()) {
        std::abort();
    }
    held.locks[held.count++] = this;
}

void LockOrder::released() {
    const auto begin = held.locks.begin();
    const auto end = begin + static_cast<std::ptrdiff_t>(held.count);
    // Searches, because a scoped lock may be released before a later one.
    std::copy(std::next(std::find(begin, end, this)), end, std::find(begin, end, this));
    --held.count;
}

}  // namespace sentrova

#endif
