// Who was logged on when. currentLoginUtility describes what the history is for.

#pragma once

#include "core/GlobalVariables.h"
#include "foundation/files/FileSystem.h"
#include "foundation/formats/KeyedArchive.h"
#include "foundation/run/DispatchQueue.h"
#include "foundation/run/Mutex.h"
#include "foundation/time/Clock.h"
#include "foundation/value/Value.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace sentrova {

// Kept in memory and, as a keyed archive, in the file `currentLogins` of the configuration folder. Safe from any
// thread.
class LoginHistory {
  public:
    // What is passed in must outlive the object.
    LoginHistory(GlobalVariables& configuration, FileSystem& files, Clock& clock);
    LoginHistory(const LoginHistory&) = delete;
    LoginHistory& operator=(const LoginHistory&) = delete;

    // Loads the file and adds the present owner of the console. Once: a second call does nothing.
    void open() EXCLUDES(mutex_);

    void addConsoleOwner() EXCLUDES(mutex_);
    // The time is in seconds since 1970. Of two entries of one second the later one stays.
    void add(const Dictionary& entry, double time) EXCLUDES(mutex_);
    // The latest entry at or before one second after the time.
    std::optional<Dictionary> find(std::int64_t time) EXCLUDES(mutex_);

    // Ends the thread that writes what was added; flush still does.
    void close() { writer_.close(); }

    // One write for all that was added since the last one. The file keeps what the latest addition pruned.
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
    std::atomic<bool> isOpen_ = false;

    // Held during a write of the file, so that an older state never replaces a newer one.
    Mutex writeMutex_{LockRank::transaction};

    Mutex mutex_{LockRank::file};
    KeyedArchive::Content history_ GUARDED_BY(mutex_);
    // What the latest addition removed.
    KeyedArchive::Content pruned_ GUARDED_BY(mutex_);
    std::size_t unwritten_ GUARDED_BY(mutex_) = 0;
    bool writeTimed_ GUARDED_BY(mutex_) = false;
    std::optional<Clock::Monotonic> lastWrite_ GUARDED_BY(mutex_);
    Clock::Duration writesApart_ GUARDED_BY(mutex_) = kWritesApart;

    // Last, so that its thread has ended before the rest goes.
    DispatchQueue writer_;
};

}  // namespace sentrova
