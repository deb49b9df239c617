#include "collection/currentLoginUtility.h"

#include "core/FileUtils.h"
#include "core/GlobalConstants.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "core/Utilities.h"
#include "forwarding/FileWatcher.h"
#include "foundation/Clock.h"
#include "foundation/DispatchQueue.h"
#include "foundation/FileSystem.h"
#include "foundation/KeyedArchive.h"
#include "foundation/Mutex.h"
#include "foundation/ProcessWide.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("currentLoginUtility");

constexpr const char* kConsole = "/dev/console";
constexpr std::chrono::milliseconds kWritesApart{100};
// A long history is written less often, so that additions that come fast cost the same each, however many there are.
constexpr int kTimesOfAWrite = 10;
constexpr std::chrono::seconds kMostApart{10};

std::string historyFile() {
    return fmt::format("{}/{}", GlobalConstants::CONF_PATH, GlobalConstants::CURRENT_LOGINS_FILE);
}

// The entry for the console's present owner; nothing when the console cannot be looked at.
std::optional<Dictionary> consoleEntry() {
    const auto attributes = FileUtils::getFileAttributes(kConsole);
    kLog.debug("getCurrentUser", "attr {}", attributes ? Value(*attributes) : Value());
    if (!attributes) {
        return std::nullopt;
    }
    Dictionary entry;
    if (const auto* owner = attributes->find(FileUtils::kOwnerAccountName)) {
        entry.set("uid", *owner);
    }
    const auto* group = attributes->find(FileUtils::kGroupOwnerAccountName);
    group = group ? group : attributes->find(FileUtils::kGroupOwnerAccountId);
    if (group) {
        entry.set("gid", *group);
    }
    return entry;
}

class LoginHistory {
  public:
    LoginHistory() {
        load();
        addConsoleOwner();
    }

    void addConsoleOwner() EXCLUDES(mutex_) {
        const auto now = epochSecondsExact(Clock::shared().wallTime());
        if (const auto entry = consoleEntry()) {
            add(*entry, now);
        }
    }

    void add(const Dictionary& entry, double time) EXCLUDES(mutex_) {
        const auto key = Value(time).integerValue();
        const auto oldest = GlobalVariables::getInstance().timeStampOfLastEvent().integerValue();
        if (isWriteDue()) {
            addAndWrite(key, entry, oldest);
        } else {
            addForLaterWrite(key, entry, oldest);
        }
    }

    std::optional<Dictionary> find(std::int64_t time) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        std::optional<Dictionary> found;
        const auto latest = time < std::numeric_limits<std::int64_t>::max() ? time + 1 : time;
        if (auto after = history_.upper_bound(latest); after != history_.begin()) {
            found = std::prev(after)->second;
        }
        if (LogSource::isWritten(LogLevel::Debug)) {
            kLog.debug("getLogonUserAtTime", "Seeking at time {} {} {}", time, descriptionLocked(),
                       found ? Value(*found) : Value());
        }
        return found;
    }

    // One write for all that was added since the last one. The file keeps what the latest addition pruned.
    void flush() EXCLUDES(mutex_, writeMutex_) {
        const MutexLock writing(writeMutex_);
        KeyedArchive::Content content;
        std::size_t additions = 0;
        {
            MutexLock lock(mutex_);
            writeTimed_ = false;
            if (unwritten_ == 0) {
                return;
            }
            additions = std::exchange(unwritten_, 0);
            content = history_;
            content.insert(pruned_.begin(), pruned_.end());
        }
        const bool written = write(content);
        for (; additions > 0; --additions) {
            logWritten(written);
            logPrunedWrite();
        }
    }

  private:
    void load() EXCLUDES(mutex_) {
        const auto bytes = FileSystem::shared().read(historyFile());
        if (!bytes) {
            if (bytes.error().code != ENOENT) {
                kLog.error("initialize", "Error while reading current login {}", bytes.error().description);
            }
            return;
        }
        auto content = KeyedArchive::unarchive(*bytes);
        if (!content) {
            kLog.error("initialize", "Error while unarchiving current login  {}", content.error().description);
            return;
        }
        MutexLock lock(mutex_);
        history_ = *std::move(content);
    }

    bool isWriteDue() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return !writeTimed_ && (!lastWrite_ || Clock::shared().monotonicTime() - *lastWrite_ >= writesApart_);
    }

    void addAndWrite(std::int64_t key, const Dictionary& entry, std::int64_t oldest) EXCLUDES(mutex_, writeMutex_) {
        const MutexLock writing(writeMutex_);
        KeyedArchive::Content content;
        {
            MutexLock lock(mutex_);
            history_.insert_or_assign(key, entry);
            content = history_;
        }
        logWritten(write(content));
        logAddition(key, entry);
        {
            MutexLock lock(mutex_);
            pruneLocked(oldest);
        }
        logPrunedWrite();
    }

    // The lock is held over the lines too, so that those of the write follow them.
    void addForLaterWrite(std::int64_t key, const Dictionary& entry, std::int64_t oldest) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        history_.insert_or_assign(key, entry);
        logAddition(key, entry);
        pruneLocked(oldest);
        ++unwritten_;
        if (!writeTimed_) {
            writeTimed_ = true;
            writer_.after(writesApart_, [this] { flush(); });
        }
    }

    static void logAddition(std::int64_t key, const Dictionary& entry) {
        if (LogSource::isWritten(LogLevel::Info)) {
            kLog.info("addToLoginHistory", "adding to loginhistory {} {} {}",
                      Utilities::getCurrentTimeInFormat("E, d MMM yyyy HH:mm:ss Z"), key, Value(entry));
        }
    }
    static void logWritten(bool written) { kLog.debug("addToLoginHistory", "{:d}", written); }
    // The pruned history's own property-list form never comes about: number keys fit into none.
    static void logPrunedWrite() { kLog.info("addToLoginHistory", "{:d}", false); }

    bool write(const KeyedArchive::Content& content) REQUIRES(writeMutex_) EXCLUDES(mutex_) {
        const auto begin = Clock::shared().monotonicTime();
        MutexLock lock(mutex_);
        lastWrite_ = begin;
        lock.unlock();
        const bool written = writeFile(content);
        lock.lock();
        writesApart_ = std::clamp<Clock::Duration>(kTimesOfAWrite * (Clock::shared().monotonicTime() - begin),
                                                   kWritesApart, kMostApart);
        return written;
    }

    static bool writeFile(const KeyedArchive::Content& content) {
        const auto bytes = KeyedArchive::archive(content);
        if (!bytes) {
            kLog.error("addToLoginHistory", "{}", bytes.error().description);
            return false;
        }
        const auto written =
            FileSystem::shared().writeAtomically(historyFile(), *bytes, FileSystem::Durability::flushed);
        if (!written) {
            kLog.error("addToLoginHistory", "{}", written.error().description);
        }
        return static_cast<bool>(written);
    }

    void pruneLocked(std::int64_t oldest) REQUIRES(mutex_) {
        pruned_.clear();
        while (!history_.empty() && history_.begin()->first < oldest) {
            kLog.debug("addToLoginHistory", "removing key {}", history_.begin()->first);
            pruned_.insert(history_.extract(history_.begin()));
        }
    }

    std::string descriptionLocked() REQUIRES(mutex_) {
        Dictionary all;
        for (const auto& [key, entry] : history_) {
            all.set(std::to_string(key), entry);
        }
        return Value(std::move(all)).description();
    }

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
    DispatchQueue writer_{"com.kelvark.vantorix.loginhistory"};
};

struct ConsoleWatcher {
    Mutex mutex{LockRank::transaction};
    std::unique_ptr<FileWatcher> watcher GUARDED_BY(mutex);
};

ProcessWide<LoginHistory> theHistory;
ProcessWide<ConsoleWatcher> theConsoleWatcher;

}  // namespace

void currentLoginUtility::initialize() {
    static_cast<void>(theHistory.get());
}

void currentLoginUtility::init() {
    initialize();
    auto watcher = FileWatcher::initWithPath(kConsole, [] { gotChanges(); });
    if (watcher) {
        watcher->startListening();
    }
    auto& shared = theConsoleWatcher.get();
    MutexLock lock(shared.mutex);
    std::swap(shared.watcher, watcher);
    lock.unlock();
}

void currentLoginUtility::suspend() {
    auto& shared = theConsoleWatcher.get();
    MutexLock lock(shared.mutex);
    if (shared.watcher) {
        shared.watcher->suspend();
    }
}

void currentLoginUtility::gotChanges() {
    kLog.debug(__func__, "Login has been made");
    getCurrentUser();
}

void currentLoginUtility::getCurrentUser() {
    theHistory.get().addConsoleOwner();
}

void currentLoginUtility::addToLoginHistory(const Dictionary& entry, double withTimestamp) {
    theHistory.get().add(entry, withTimestamp);
}

std::optional<Dictionary> currentLoginUtility::getLogonUserAtTime(std::int64_t time) {
    return theHistory.get().find(time);
}

void currentLoginUtility::flush() {
    if (auto* const history = theHistory.existing()) {
        history->flush();
    }
}

}  // namespace sentrova
