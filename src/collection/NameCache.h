// A short-lived cache of user or group names.

#pragma once

#include "foundation/run/Clock.h"
#include "foundation/run/Mutex.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

namespace sentrova {

// Remembers a name for a minute, and an id without a name for a second. Safe from any thread; lookUp is called without
// the lock.
class NameCache {
  public:
    // The clock must outlive the cache.
    explicit NameCache(Clock& clock) : clock_(clock) {}

    // The name of the id, from the cache or from lookUp(id); nothing if it has no name.
    template <class LookUp>
    std::optional<std::string> find(std::uint32_t id, LookUp lookUp) EXCLUDES(mutex_) {
        if (id == kUnsetId) {
            return std::nullopt;
        }
        const auto now = clock_.monotonicTime();
        {
            MutexLock lock(mutex_);
            if (now >= emptiedAt_ + kNameRemembered) {
                names_.clear();
                emptiedAt_ = now;
            }
            if (const auto found = names_.find(id); found != names_.end()) {
                return found->second;
            }
            if (const auto found = nameless_.find(id); found != nameless_.end() && now < found->second) {
                return std::nullopt;
            }
        }
        auto name = lookUp(id);
        MutexLock lock(mutex_);
        if (name) {
            names_.insert_or_assign(id, *name);
        } else {
            // Bounded here, because records may contain any number of unknown ids.
            if (nameless_.size() >= kMostNameless) {
                nameless_.clear();
            }
            nameless_.insert_or_assign(id, now + kNamelessRemembered);
        }
        return name;
    }

  private:
    // The value of an id that was never set.
    static constexpr std::uint32_t kUnsetId = 0xFFFFFFFF;
    static constexpr std::chrono::minutes kNameRemembered{1};
    static constexpr std::chrono::seconds kNamelessRemembered{1};
    static constexpr std::size_t kMostNameless = 4096;

    Clock& clock_;
    Mutex mutex_;
    // Bounded by the directory.
    std::unordered_map<std::uint32_t, std::string> names_ GUARDED_BY(mutex_);
    Clock::Monotonic emptiedAt_ GUARDED_BY(mutex_);
    // The time until which each is remembered.
    std::unordered_map<std::uint32_t, Clock::Monotonic> nameless_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
