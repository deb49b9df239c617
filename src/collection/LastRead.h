// The time of the newest record that was read, and its storage in `myconfigurations.plist`.

#pragma once

#include "core/GlobalVariables.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/Mutex.h"
#include "foundation/run/NotificationCenter.h"

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

namespace sentrova {

// Whole seconds since 1970. The time only moves forward, and makes collection resumable across restarts. Safe from any
// thread.
class LastRead {
  public:
    // What is passed in must outlive the object.
    LastRead(GlobalVariables& configuration, FileSystem& files, NotificationCenter& notifications)
        : configuration_(configuration), files_(files), notifications_(notifications) {}

    // Takes the configured time, and stores the time from now on whenever "TimeUpdateNotification" is posted.
    void open();

    std::uint64_t time() const { return time_.load(std::memory_order_relaxed); }

    // Whether a record of that time is not older than the newest one. In the same step the time moves forward to it; if
    // it may not move, a newer record is refused.
    bool admit(std::uint64_t time, bool mayMove);
    // The last second of all has no next one.
    void moveOnBySecond();

    // Stores the time in the configuration when it is newer than what is stored there. Throws nothing: a configuration
    // that cannot be loaded just now does not keep the time from its file.
    void store() noexcept EXCLUDES(mutex_);

  private:
    void storeIfNewer() EXCLUDES(mutex_);
    std::int64_t storedLocked(const std::string& path) REQUIRES(mutex_);

    GlobalVariables& configuration_;
    FileSystem& files_;
    NotificationCenter& notifications_;
    std::atomic<std::uint64_t> time_ = 0;
    Mutex mutex_{LockRank::transaction};
    // The file that the stored time was read from. A file that has not changed since is not parsed again.
    std::optional<FileStatus> readFrom_ GUARDED_BY(mutex_);
    std::int64_t stored_ GUARDED_BY(mutex_) = 0;
    Subscription observer_;
};

}  // namespace sentrova
