// The login history: who was logged on when. currentLoginUtility.h describes its purpose.

#pragma once

#include "core/GlobalVariables.h"
#include "foundation/files/FileSystem.h"
#include "foundation/formats/KeyedArchive.h"
#include "foundation/run/Clock.h"
#include "foundation/run/DispatchQueue.h"
#include "foundation/run/Mutex.h"
#include "foundation/value/Value.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace sentrova {

// In memory, and as a keyed archive in the file `currentLogins` of the configuration folder. Safe from any thread.
class LoginHistory {
  public:
    // All arguments must outlive the object.
    LoginHistory(GlobalVariables& configuration, FileSystem& files, Clock& clock);
    LoginHistory(const LoginHistory&) = delete;
    LoginHistory& operator=(const LoginHistory&) = delete;

    // Loads the file and adds the current owner of the console. Only the first call does anything; a call at the same
    // time waits for it. An addition or a look-up before that would not see the stored entries.
    void open() EXCLUDES(mutex_);

    void addConsoleOwner() EXCLUDES(mutex_);
    // `time` is in seconds since 1970. Of two entries in one second, the later one replaces the earlier one.
    void add(const Dictionary& entry, double time) EXCLUDES(mutex_);
    // Returns the latest entry up to one second after `time` (seconds since 1970); nothing if there is none.
    std::optional<Dictionary> find(std::int64_t time) EXCLUDES(mutex_);

    // Stops the writing thread. flush still works afterwards.
    void close() { writer_.close(); }

    // Writes all additions since the last write, in one write. The file keeps the entries that the latest addition
    // pruned from memory.
    void flush() EXCLUDES(mutex_, writeMutex_);

  private:
    static constexpr std::chrono::milliseconds kWritesApart{100};

    void load() EXCLUDES(mutex_);
    bool isWriteDue() EXCLUDES(mutex_);
    void addAndWrite(std::int64_t key, const Dictionary& entry, std::int64_t oldest) EXCLUDES(mutex_, writeMutex_);
    void addForLaterWrite(std::int64_t key, const Dictionary& entry, std::int64_t oldest) EXCLUDES(mutex_);
    bool write(const KeyedArchive::Content& content) REQUIRES(writeMutex_) EXCLUDES(mutex_);
    bool writeFile(const KeyedArchive::Content& content);
    void pruneLocked(std::int64_t oldest) REQUIRES(mutex_);
    std::string descriptionLocked() REQUIRES(mutex_);

    GlobalVariables& configuration_;
    FileSystem& files_;
    Clock& clock_;
    std::once_flag opened_;

    // Held during a write of the file, so that an older state never replaces a newer one.
    Mutex writeMutex_{LockRank::transaction};

    Mutex mutex_{LockRank::file};
    KeyedArchive::Content history_ GUARDED_BY(mutex_);
    // The entries that the latest addition pruned.
    KeyedArchive::Content pruned_ GUARDED_BY(mutex_);
    // The number of additions that are not in the file yet.
    std::size_t unwritten_ GUARDED_BY(mutex_) = 0;
    // The timer of a write is set.
    bool writeTimed_ GUARDED_BY(mutex_) = false;
    std::optional<Clock::Monotonic> lastWrite_ GUARDED_BY(mutex_);
    Clock::Duration writesApart_ GUARDED_BY(mutex_) = kWritesApart;

    // Declared last, so that its thread ends before the other members are destroyed.
    DispatchQueue writer_;
};

}  // namespace sentrova
