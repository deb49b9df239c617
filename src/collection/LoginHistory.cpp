#include "collection/LoginHistory.h"

#include "core/FileUtils.h"
#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "core/Utilities.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("currentLoginUtility");

constexpr const char* kConsole = "/dev/console";
// Writing a long history takes longer. The time between two writes is at least ten times the duration of the last one
// (and from 0.1 to 10 seconds), so that the cost per addition stays constant in a burst.
constexpr int kTimesOfAWrite = 10;
constexpr std::chrono::seconds kMostApart{10};

std::string historyFile() {
    return fmt::format("{}/{}", GlobalConstants::CONF_PATH, GlobalConstants::CURRENT_LOGINS_FILE);
}

// The entry for the console's current owner; nothing if the console cannot be examined.
std::optional<Dictionary> consoleEntry() {
    const auto attributes = FileUtils::getFileAttributes(kConsole);
    kLog.debug("attr {}", attributes ? Value(*attributes) : Value());
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

void logAddition(std::int64_t key, const Dictionary& entry) {
    if (LogSource::isWritten(LogLevel::Info)) {
        kLog.info("adding to loginhistory {} {} {}", Utilities::getCurrentTimeInFormat("E, d MMM yyyy HH:mm:ss Z"), key,
                  Value(entry));
    }
}
void logWritten(bool written) {
    kLog.debug("{:d}", written);
}
// Each addition also logs a second write, of the pruned history as a property list. It never succeeds: a property list
// cannot have number keys.
void logPrunedWrite() {
    kLog.info("{:d}", false);
}

}  // namespace

LoginHistory::LoginHistory(GlobalVariables& configuration, FileSystem& files, Clock& clock)
    : configuration_(configuration),
      files_(files),
      clock_(clock),
      writer_("com.kelvark.vantorix.loginhistory", clock) {}

void LoginHistory::open() {
    std::call_once(opened_, [this] {
        load();
        addConsoleOwner();
    });
}

void LoginHistory::addConsoleOwner() {
    const auto now = epochSecondsExact(clock_.wallTime());
    if (const auto entry = consoleEntry()) {
        add(*entry, now);
    }
}

void LoginHistory::add(const Dictionary& entry, double time) {
    const auto key = Value(time).integerValue();
    const auto oldest = configuration_.timeStampOfLastEvent().integerValue();
    if (isWriteDue()) {
        addAndWrite(key, entry, oldest);
    } else {
        addForLaterWrite(key, entry, oldest);
    }
}

std::optional<Dictionary> LoginHistory::find(std::int64_t time) {
    MutexLock lock(mutex_);
    std::optional<Dictionary> found;
    const auto latest = time < std::numeric_limits<std::int64_t>::max() ? time + 1 : time;
    if (auto after = history_.upper_bound(latest); after != history_.begin()) {
        found = std::prev(after)->second;
    }
    if (LogSource::isWritten(LogLevel::Debug)) {
        kLog.debug("Seeking at time {} {} {}", time, descriptionLocked(), found ? Value(*found) : Value());
    }
    return found;
}

// An addition is written at once if the last write was long enough ago (writesApart_). Otherwise it waits for one
// shared write, by a timer or a call of flush: a burst of logons costs a few writes, not one per logon.
//
// Either way an addition logs itself, the pruned keys, the result of the write and the result of the second write. Only
// the order differs: an immediate write logs its result first. A shared write comes later and logs both results once
// per addition.
//
// An immediate write takes its content before the pruning, so the file keeps pruned entries until the next write. A
// shared write has the same effect: it adds pruned_, the entries that the latest addition removed.
//
// mutex_ guards the history and is held only briefly, so that look-ups do not wait for the disk. writeMutex_ is held
// from taking the content until it is written, so that an older content never overwrites a newer one.
void LoginHistory::flush() {
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

void LoginHistory::load() {
    const auto bytes = files_.read(historyFile());
    if (!bytes) {
        if (bytes.error().code != ENOENT) {
            kLog.error("Error while reading current login {}", bytes.error().description);
        }
        return;
    }
    auto content = KeyedArchive::unarchive(*bytes);
    if (!content) {
        kLog.error("Error while unarchiving current login  {}", content.error().description);
        return;
    }
    MutexLock lock(mutex_);
    history_ = *std::move(content);
}

bool LoginHistory::isWriteDue() {
    MutexLock lock(mutex_);
    return !writeTimed_ && (!lastWrite_ || clock_.monotonicTime() - *lastWrite_ >= writesApart_);
}

void LoginHistory::addAndWrite(std::int64_t key, const Dictionary& entry, std::int64_t oldest) {
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

// The lock is also held while the lines are logged, so that the lines of the shared write follow them.
void LoginHistory::addForLaterWrite(std::int64_t key, const Dictionary& entry, std::int64_t oldest) {
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

bool LoginHistory::write(const KeyedArchive::Content& content) {
    const auto begin = clock_.monotonicTime();
    MutexLock lock(mutex_);
    lastWrite_ = begin;
    lock.unlock();
    const bool written = writeFile(content);
    lock.lock();
    writesApart_ =
        std::clamp<Clock::Duration>(kTimesOfAWrite * (clock_.monotonicTime() - begin), kWritesApart, kMostApart);
    return written;
}

bool LoginHistory::writeFile(const KeyedArchive::Content& content) {
    const auto bytes = KeyedArchive::archive(content);
    if (!bytes) {
        kLog.error("{}", bytes.error().description);
        return false;
    }
    const auto written = files_.writeAtomically(historyFile(), *bytes, FileSystem::Durability::flushed);
    if (!written) {
        kLog.error("{}", written.error().description);
    }
    return static_cast<bool>(written);
}

void LoginHistory::pruneLocked(std::int64_t oldest) {
    pruned_.clear();
    while (!history_.empty() && history_.begin()->first < oldest) {
        kLog.debug("removing key {}", history_.begin()->first);
        pruned_.insert(history_.extract(history_.begin()));
    }
}

std::string LoginHistory::descriptionLocked() {
    Dictionary all;
    for (const auto& [key, entry] : history_) {
        all.set(std::to_string(key), entry);
    }
    return Value(std::move(all)).description();
}

}  // namespace sentrova
