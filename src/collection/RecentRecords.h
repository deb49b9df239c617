// Counts the newest records by their digests. Equal records are counted, because they are several events.

#pragma once

#include "foundation/run/Mutex.h"

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string_view>
#include <unordered_map>

namespace sentrova {

// Counts only between begin and end. Safe from any thread. Takes at most about 4 MiB.
class RecentRecords {
  public:
    void begin() EXCLUDES(mutex_) { restart(true); }
    void end() EXCLUDES(mutex_) { restart(false); }

    // More than the live device queues while a pass runs. Older records are forgotten.
    static constexpr std::size_t kMost = 65536;

    void add(std::string_view digest) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        if (!isCounting_) {
            return;
        }
        const auto key = keyOf(digest);
        order_.push_back(key);
        ++counts_[key].added;
        if (order_.size() > kMost) {
            forgetOldestLocked();
        }
    }

    // Removes one record with the digest. Returns false if there is none.
    bool take(std::string_view digest) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        const auto found = counts_.find(keyOf(digest));
        if (found == counts_.end() || found->second.taken == found->second.added) {
            return false;
        }
        ++found->second.taken;
        return true;
    }

  private:
    struct Counts {
        // How often the digest is in order_, and how many of these were taken. Equal records are interchangeable, so
        // the oldest ones count as the taken ones.
        std::size_t added = 0;
        std::size_t taken = 0;
    };

    // The digest's sixteen hexadecimal digits as a number, which takes a fraction of the memory.
    static std::uint64_t keyOf(std::string_view digest) {
        std::uint64_t key = 0;
        std::from_chars(digest.data(), digest.data() + digest.size(), key, 16);
        return key;
    }

    void restart(bool isCounting) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        isCounting_ = isCounting;
        order_ = {};
        counts_ = {};
    }

    void forgetOldestLocked() REQUIRES(mutex_) {
        const auto found = counts_.find(order_.front());
        order_.pop_front();
        if (found->second.taken > 0) {
            --found->second.taken;
        }
        if (--found->second.added == 0) {
            counts_.erase(found);
        }
    }

    Mutex mutex_;
    bool isCounting_ GUARDED_BY(mutex_) = false;
    // In the order of their addition.
    std::deque<std::uint64_t> order_ GUARDED_BY(mutex_);
    std::unordered_map<std::uint64_t, Counts> counts_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
