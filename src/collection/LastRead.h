// The last-read time: the time of the newest record read, and its storage in `myconfigurations.plist`.

#pragma once

#include "core/GlobalVariables.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/Mutex.h"
#include "foundation/run/NotificationCenter.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace sentrova {

// Whole seconds since 1970; only moves forward. Safe from any thread.
//
// The time decides which records are new, for all readers of the process and across restarts. A record is admitted if
// its time is not below the last-read time, so several records of one second are all admitted. A reader that is opened
// moves the time forward by one second first: it cannot know which records of that second were delivered already, and
// delivers none of them a second time. The price: records of that second that no reader has seen yet are dropped.
class LastRead {
  public:
    // All arguments must outlive the object.
    LastRead(GlobalVariables& configuration, FileSystem& files, NotificationCenter& notifications)
        : configuration_(configuration), files_(files), notifications_(notifications) {}

    // Takes the configured time, and from then on stores the time whenever "TimeUpdateNotification" is posted. Only the
    // first call does anything; a call at the same time waits for it. The first collector makes it: an agent that
    // starts disabled may get another time from the server before it collects.
    void begin();

    std::uint64_t time() const { return time_.load(std::memory_order_relaxed); }

    // Returns true if the time is not below the last-read time, and moves the last-read time forward to it in the same
    // atomic step. If mayMove is false, a newer time is refused.
    bool admit(std::uint64_t time, bool mayMove);
    // Moves the time forward by one second. The largest time stays.
    void moveOnBySecond();

    // Stores the time if it is newer than the stored one. Never throws. A failed reload of the configuration does not
    // keep the time from being written to the file.
    void store() noexcept EXCLUDES(mutex_);

  private:
    void storeIfNewer() EXCLUDES(mutex_);
    std::int64_t storedLocked(const std::string& path) REQUIRES(mutex_);

    GlobalVariables& configuration_;
    FileSystem& files_;
    NotificationCenter& notifications_;
    std::once_flag begun_;
    std::atomic<std::uint64_t> time_ = 0;
    Mutex mutex_{LockRank::transaction};
    // The status of the file that stored_ was read from. An unchanged file is not parsed again.
    std::optional<FileStatus> readFrom_ GUARDED_BY(mutex_);
    std::int64_t stored_ GUARDED_BY(mutex_) = 0;
    Subscription observer_;
};

}  // namespace sentrova
