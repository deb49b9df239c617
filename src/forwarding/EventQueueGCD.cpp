#include "forwarding/EventQueueGCD.h"

#include "core/FileUtils.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "forwarding/DelayedPairs.h"
#include "forwarding/TransportEngine.h"
#include "forwarding/WaitingFiles.h"
#include "foundation/Clock.h"
#include "foundation/DateFormat.h"
#include "foundation/DispatchQueue.h"
#include "foundation/FileSystem.h"
#include "foundation/Json.h"
#include "foundation/Mutex.h"
#include "foundation/NotificationCenter.h"
#include "foundation/ProcessWide.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <limits>
#include <memory>
#include <set>
#include <utility>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("EventQueueGCD");

constexpr std::chrono::seconds kFirstTimeUpdate{30};
constexpr std::chrono::seconds kAnnouncedAfter{10};
constexpr std::chrono::seconds kFileAnnouncedAgain{10};
constexpr std::chrono::seconds kEventsAnnouncedAgain{30};
constexpr std::string_view kFilePrefix = "event_";
constexpr std::string_view kUndeliveredPrefix = "undelivered_";

constexpr char kIdentity = 0;

// Whether every observer took it.
bool post(std::string_view name, Dictionary userInfo = {}) {
    return NotificationCenter::defaultCenter().post({name, &kIdentity, std::move(userInfo)});
}

bool postFile(const FileUrl& file) {
    return post(EventQueueGCD::kEventFileNotification, {{EventQueueGCD::kFileUrl, file.absoluteString()}});
}

// Shortages that pass, unlike a file that is damaged or forbidden.
bool isShortage(const Error& error) {
    return error.code == EMFILE || error.code == ENFILE || error.code == ENOMEM;
}

// Events, kept as the JSON text that becomes of them: a tenth of the memory that their dictionaries take, and written
// while they are still at hand.
class Batch {
  public:
    void add(const Dictionary& event, std::string_view text) {
        text_ += size_++ == 0 ? '[' : ',';
        text_ += text;
        if (const auto& time = event["record_time"]; time.isNumber()) {
            first_ = std::min(first_, time.integerValue());
            last_ = std::max(last_, time.integerValue());
        }
    }

    // The batch may be added to no more until it has been cleared.
    const std::string& asArray() & {
        text_ += size_ == 0 ? "[]" : "]";
        return text_;
    }
    std::string asArray() && {
        asArray();
        return std::move(text_);
    }

    // Keeps its memory for the next events of a burst.
    void clear() {
        auto memory = std::move(text_);
        memory.clear();
        *this = Batch();
        text_ = std::move(memory);
    }

    std::size_t size() const { return size_; }

    // The times of its events, by which a person finds them in the trails again; empty when they have none.
    std::string recordedWhen() const {
        return first_ > last_ ? "" : fmt::format(", recorded from {} to {}", first_, last_);
    }

  private:
    std::string text_;
    std::size_t size_ = 0;
    std::int64_t first_ = std::numeric_limits<std::int64_t>::max();
    std::int64_t last_ = std::numeric_limits<std::int64_t>::min();
};

// Gives every batch a name of its own: the present millisecond or, when that is taken, the next free one.
class FileNames {
  public:
    std::string next(const std::string& folder) {
        auto stamp = std::chrono::floor<std::chrono::milliseconds>(Clock::shared().wallTime());
        // A clock that was set back far does not keep names in the future.
        if (stamp <= last_ && last_ - stamp < std::chrono::hours(1)) {
            stamp = last_ + std::chrono::milliseconds(1);
        }
        for (;; stamp += std::chrono::milliseconds(1)) {
            auto path =
                fmt::format("{}/{}{}", folder, kFilePrefix, DateFormat::format("yyyyMMddHHmmssSSS", Date(stamp)));
            if (!FileUtils::doesFileExist(path)) {
                last_ = stamp;
                return path;
            }
        }
    }

  private:
    std::chrono::sys_time<std::chrono::milliseconds> last_;
};

class Spool {
  public:
    Spool() {
        dispatchQueue_.after(kFirstTimeUpdate, [] { post(EventQueueGCD::kTimeUpdateNotification); });
        FileUtils::createFolder(GlobalVariables::getInstance().eventDataPath());
        kLog.info("init", "EventQueueGCD queueData initialised");
    }

    // Ends the thread that posts, and so uses what is younger than the spool.
    void quiesce() { dispatchQueue_.close(); }

    void enqueue(Dictionary event) EXCLUDES(pairsMutex_) {
        dispatchQueue_.sync([this, &event] { add(std::move(event)); });
        announceLater();
    }

    std::optional<std::string> dequeue(const std::optional<FileUrl>& file) {
        std::optional<std::string> data;
        dispatchQueue_.sync([this, &file, &data] { data = file ? readFile(*file) : takeEvents(); });
        return data;
    }

    void announceFiles() {
        dispatchQueue_.sync([this] {
            auto names = FileUtils::listOfFileNamesInPath(GlobalVariables::getInstance().eventDataPath());
            if (names) {
                std::erase_if(*names, [](const auto& name) { return name.starts_with(kUndeliveredPrefix); });
                announced_.clear();
                waiting_.assign(*std::move(names));
                announceNext();
            }
        });
    }

    void announceAgain(const FileUrl& file) {
        dispatchQueue_.sync([this, name = file.lastPathComponent()] {
            announced_.erase(name);
            keepForNextRound(name);
        });
    }

    std::size_t length() {
        std::size_t count = 0;
        dispatchQueue_.sync([this, &count] { count = queueData_.size(); });
        return count;
    }

    std::size_t lengthAtEnd() const { return length_; }

  private:
    void add(Dictionary event) {
        kLog.debug("enqueue", "EventQueueGCD enqueue called");
        if (static_cast<std::int64_t>(queueData_.size()) >= GlobalVariables::getInstance().noOfEventsPerRequest()) {
            flush();
        }
        const Value value(std::move(event));
        if (const auto text = Json::write(value)) {
            queueData_.add(*value.dictionary(), *text);
            length_ = queueData_.size();
        } else {
            kLog.error("enqueue", "Invalid json {}", value);
        }
    }

    void flush() {
        const auto path = fileNames_.next(GlobalVariables::getInstance().eventDataPath());
        kLog.info("enqueue", " filename {}", path);
        write(path, queueData_);
        queueData_.clear();
        length_ = 0;
        waiting_.add(FileUrl(path).lastPathComponent());
        announceNext();
    }

    static void write(const std::string& path, Batch& batch) {
        const auto& text = batch.asArray();
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
        const auto written =
            FileSystem::shared().writeAtomically(path, {bytes, text.size()}, FileSystem::Durability::renamed);
        if (!written) {
            kLog.error("enqueue", "A batch of {} events is lost{}: {}", batch.size(), batch.recordedWhen(),
                       written.error().description);
        }
    }

    std::optional<std::string> readFile(const FileUrl& file) {
        const auto name = file.lastPathComponent();
        announced_.erase(name);
        if (!TransportEngine::isConnected()) {
            kLog.debug("dequeue", "Created file notification again for {}", file.absoluteString());
            keepForNextRound(name);
            return std::nullopt;
        }
        // The caller sends it now: another announcement would find no file.
        waiting_.remove(name);
        announceNext();
        kLog.info("dequeue", "Going to read from file {}", file.path());
        auto content = FileSystem::shared().readText(file.path());
        if (!content) {
            kLog.error("dequeue", "The spooled file cannot be read: {}", content.error().description);
            if (isShortage(content.error())) {
                keepForNextRound(name);
            }
            return std::nullopt;
        }
        return *std::move(content);
    }

    std::optional<std::string> takeEvents() {
        if (queueData_.size() == 0) {
            return std::nullopt;
        }
        if (!TransportEngine::isConnected()) {
            announceEventsAgain();
            return std::nullopt;
        }
        kLog.debug("dequeue", "Reading events from Queue");
        auto batch = std::exchange(queueData_, {});
        length_ = 0;
        kLog.debug("dequeue", "EventQueueGCD dequeue count {}", batch.size());
        return std::move(batch).asArray();
    }

    // Announces waiting files until enough of them are on their way. Not while a round is pending: those that were
    // refused go first.
    void announceNext() {
        while (!roundPending_ && announced_.size() < EventQueueGCD::kFilesAnnounced) {
            const auto name = waiting_.takeFirst();
            if (!name) {
                return;
            }
            announced_.insert(*name);
            const FileUrl file(fmt::format("{}/{}", GlobalVariables::getInstance().eventDataPath(), *name));
            if (!postFile(file)) {
                announced_.erase(*name);
                keepForNextRound(*name);
            }
        }
    }

    // Waiting files are re-announced together, so that they are sent in name order after an outage. Separate timers per
    // file would lose that order.
    void keepForNextRound(const std::string& name) {
        waiting_.add(name);
        if (!std::exchange(roundPending_, true)) {
            dispatchQueue_.after(kFileAnnouncedAgain, [this] {
                roundPending_ = false;
                announceNext();
            });
        }
    }

    // One announcement at a time: every event asks for one ten seconds after it came, and while the server is away for
    // a day, one for each of them would go round and round.
    void announceEventsAgain() {
        kLog.debug("dequeue", "Created Event notification again");
        if (!std::exchange(eventsAnnouncedAgain_, true)) {
            dispatchQueue_.after(kEventsAnnouncedAgain, [this] {
                eventsAnnouncedAgain_ = false;
                post(EventQueueGCD::kEventForwardNotification);
            });
        }
    }

    // Notes one more pair of delayed notifications. There is one timer, for the pairs that fall due next.
    void announceLater() EXCLUDES(pairsMutex_) {
        const auto due = Clock::shared().monotonicTime() + kAnnouncedAfter;
        MutexLock lock(pairsMutex_);
        pairs_.add(due);
        if (!pairsTimed_) {
            setPairsTimerLocked(kAnnouncedAfter);
        }
    }

    // Without memory for the timer, the next event asks for it again.
    void setPairsTimerLocked(Clock::Duration delay) REQUIRES(pairsMutex_) {
        dispatchQueue_.after(delay, [this] { postDuePairs(); });
        pairsTimed_ = true;
    }

    // Posts one pair and gives up its turn on the queue, so that the observers' hand-overs get theirs between two
    // pairs.
    void postDuePairs() EXCLUDES(pairsMutex_) {
        const auto now = Clock::shared().monotonicTime();
        MutexLock lock(pairsMutex_);
        if (pairs_.take(now)) {
            lock.unlock();
            post(EventQueueGCD::kEventForwardNotification);
            post(EventQueueGCD::kTimeUpdateNotification);
            dispatchQueue_.async([this] { postDuePairs(); });
            return;
        }
        pairsTimed_ = false;
        if (!pairs_.empty()) {
            setPairsTimerLocked(pairs_.nextDue() - now);
        }
    }

    // Only on the queue.
    Batch queueData_;
    FileNames fileNames_;
    // As many as the spool has files, which its size limit bounds.
    WaitingFiles waiting_;
    // The names of those that observers have taken and not yet asked for; none of them waits.
    std::set<std::string> announced_;
    bool roundPending_ = false;
    bool eventsAnnouncedAgain_ = false;

    // The size of queueData_, for readers that cannot wait for the queue.
    std::atomic<std::size_t> length_ = 0;

    Mutex pairsMutex_;
    DelayedPairs pairs_ GUARDED_BY(pairsMutex_);
    bool pairsTimed_ GUARDED_BY(pairsMutex_) = false;

    // Last, so that its thread has ended before what it works on goes.
    DispatchQueue dispatchQueue_{"com.kelvark.vantorix.eventqueue"};
};

ProcessWide<Spool> theSpool;

}  // namespace

const void* EventQueueGCD::identity() {
    return &kIdentity;
}

void EventQueueGCD::init() {
    static_cast<void>(theSpool.get());
    kLog.debug(__func__, "EventQueueGCD init Finished");
}

void EventQueueGCD::enqueue(Dictionary event) {
    theSpool.get().enqueue(std::move(event));
}

std::optional<std::string> EventQueueGCD::dequeue(const std::optional<FileUrl>& file) {
    return theSpool.get().dequeue(file);
}

void EventQueueGCD::announceFiles() {
    theSpool.get().announceFiles();
}

void EventQueueGCD::announceAgain(const FileUrl& file) {
    theSpool.get().announceAgain(file);
}

std::size_t EventQueueGCD::length() {
    return theSpool.get().length();
}

std::size_t EventQueueGCD::lengthAtEnd() {
    const auto* const spool = theSpool.existing();
    return spool ? spool->lengthAtEnd() : 0;
}

}  // namespace sentrova
