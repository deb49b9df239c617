#include "foundation/LockOrder.h"

#ifndef NDEBUG

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iterator>

namespace sentrova {

namespace {

// What the present thread holds, in the order in which it was taken. Without a destructor: locks are taken until the
// very end of a thread.
struct Held {
    std::array<LockOrder*, 32> locks;
    std::size_t count;
};

thread_local Held held{};

template <class Compare>
void replaceIf(std::atomic<LockRank>& bound, LockRank rank, Compare compare) {
    auto present = bound.load(std::memory_order_relaxed);
    while (compare(rank, present) && !bound.compare_exchange_weak(present, rank, std::memory_order_relaxed)) {
    }
}

}  // namespace

void LockOrder::refuse(LockRank rank) const {
    std::fprintf(stderr, "lock order: a mutex of rank %d is taken under one of rank %d\n", static_cast<int>(rank_),
                 static_cast<int>(rank));
    std::abort();
}

void LockOrder::checkMaking() const {
    const auto outside = lastOutside_.load(std::memory_order_relaxed);
    if (outside != LockRank::making && outside >= firstInside_.load(std::memory_order_relaxed)) {
        refuse(outside);
    }
}

void LockOrder::wanted() {
    for (std::size_t i = 0; i < held.count; ++i) {
        auto& other = *held.locks[i];
        const bool inOrder = rank_ == LockRank::making || other.rank_ == LockRank::making || other.rank_ < rank_;
        if (&other == this || !inOrder) {
            refuse(other.rank_);
        }
        if (other.rank_ != LockRank::making && rank_ == LockRank::making) {
            replaceIf(lastOutside_, other.rank_, std::greater<>());
            checkMaking();
        } else if (other.rank_ == LockRank::making && rank_ != LockRank::making) {
            replaceIf(other.firstInside_, rank_, std::less<>());
            other.checkMaking();
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
    // Not always the latest: a scoped lock may be let go early.
    std::copy(std::next(std::find(begin, end, this)), end, std::find(begin, end, this));
    --held.count;
}

}  // namespace sentrova

#endif
