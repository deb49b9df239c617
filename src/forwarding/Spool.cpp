#include "forwarding/Spool.h"

#include "core/FileUtils.h"
#include "core/LogSource.h"
#include "forwarding/EventQueueGCD.h"
#include "foundation/formats/Json.h"

#include <cerrno>
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

// Shortages that pass, unlike a file that is damaged or forbidden.
bool isShortage(const Error& error) {
    return error.code == EMFILE || error.code == ENFILE || error.code == ENOMEM;
}

std::span<const std::uint8_t> bytesOf(const std::string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

Spool::Spool(const Surroundings& with) : with_(with), dispatchQueue_("com.kelvark.vantorix.eventqueue", with.clock) {}

void Spool::open() {
    if (isOpen_.exchange(true)) {
        return;
    }
    dispatchQueue_.after(kFirstTimeUpdate, [this] { post(EventQueueGCD::kTimeUpdateNotification); });
    FileUtils::createFolder(with_.configuration.eventDataPath());
    kLog.info("EventQueueGCD queueData initialised");
}

// Whether every observer took it.
bool Spool::post(std::string_view name, Dictionary userInfo) {
    return with_.notifications.post({name, EventQueueGCD::identity(), std::move(userInfo)});
}

void Spool::enqueue(Dictionary event) {
    dispatchQueue_.sync([this, &event] { add(std::move(event)); });
    announceLater();
}

std::optional<std::string> Spool::dequeue(const std::optional<FileUrl>& file) {
    std::optional<std::string> data;
    dispatchQueue_.sync([this, &file, &data] { data = file ? readFile(*file) : takeEvents(); });
    return data;
}

void Spool::announceFiles() {
    dispatchQueue_.sync([this] {
        auto names = FileUtils::listOfFileNamesInPath(with_.configuration.eventDataPath());
        if (names) {
            std::erase_if(*names, [](const auto& name) { return name.starts_with(kUndeliveredPrefix); });
            announced_.clear();
            waiting_.assign(*std::move(names));
            announceNext();
        }
    });
}

void Spool::announceAgain(const FileUrl& file) {
    dispatchQueue_.sync([this, name = file.lastPathComponent()] {
        announced_.erase(name);
        keepForNextRound(name);
    });
}

std::size_t Spool::length() {
    std::size_t count = 0;
    dispatchQueue_.sync([this, &count] { count = queueData_.size(); });
    return count;
}

void Spool::add(Dictionary event) {
    kLog.debug("EventQueueGCD enqueue called");
    if (static_cast<std::int64_t>(queueData_.size()) >= with_.configuration.noOfEventsPerRequest()) {
        flush();
    }
    const Value value(std::move(event));
    if (const auto text = Json::write(value)) {
        queueData_.add(*value.dictionary(), *text);
        length_ = queueData_.size();
    } else {
        kLog.error("Invalid json {}", value);
    }
}

void Spool::flush() {
    const auto path = nextFileName();
    kLog.info(" filename {}", path);
    write(path);
    queueData_.clear();
    length_ = 0;
    waiting_.add(FileUrl(path).lastPathComponent());
    announceNext();
}

void Spool::write(const std::string& path) {
    const auto& text = queueData_.asArray();
    const auto written = with_.files.writeAtomically(path, bytesOf(text), FileSystem::Durability::renamed);
    if (!written) {
        kLog.error("A batch of {} events is lost{}: {}", queueData_.size(), queueData_.recordedWhen(),
                   written.error().description);
    }
}

std::optional<std::string> Spool::readFile(const FileUrl& file) {
    const auto name = file.lastPathComponent();
    announced_.erase(name);
    if (!with_.transport.isConnected()) {
        kLog.debug("Created file notification again for {}", file.absoluteString());
        keepForNextRound(name);
        return std::nullopt;
    }
    // The caller sends it now: another announcement would find no file.
    waiting_.remove(name);
    announceNext();
    kLog.info("Going to read from file {}", file.path());
    auto content = with_.files.readText(file.path());
    if (!content) {
        kLog.error("The spooled file cannot be read: {}", content.error().description);
        if (isShortage(content.error())) {
            keepForNextRound(name);
        }
        return std::nullopt;
    }
    return *std::move(content);
}

std::optional<std::string> Spool::takeEvents() {
    if (queueData_.size() == 0) {
        return std::nullopt;
    }
    if (!with_.transport.isConnected()) {
        announceEventsAgain();
        return std::nullopt;
    }
    kLog.debug("Reading events from Queue");
    auto batch = std::exchange(queueData_, {});
    length_ = 0;
    kLog.debug("EventQueueGCD dequeue count {}", batch.size());
    return std::move(batch).asArray();
}

// Announces waiting files until enough of them are on their way. Not while a round is pending: those that were
// refused go first.
void Spool::announceNext() {
    while (!roundPending_ && announced_.size() < EventQueueGCD::kFilesAnnounced) {
        const auto name = waiting_.takeFirst();
        if (!name) {
            return;
        }
        announced_.insert(*name);
        const FileUrl file(fmt::format("{}/{}", with_.configuration.eventDataPath(), *name));
        if (!post(EventQueueGCD::kEventFileNotification, {{EventQueueGCD::kFileUrl, file.absoluteString()}})) {
            announced_.erase(*name);
            keepForNextRound(*name);
        }
    }
}

// Waiting files are re-announced together, so that they are sent in name order after an outage. Separate timers per
// file would lose that order.
void Spool::keepForNextRound(const std::string& name) {
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
void Spool::announceEventsAgain() {
    kLog.debug("Created Event notification again");
    if (!std::exchange(eventsAnnouncedAgain_, true)) {
        dispatchQueue_.after(kEventsAnnouncedAgain, [this] {
            eventsAnnouncedAgain_ = false;
            post(EventQueueGCD::kEventForwardNotification);
        });
    }
}

// Notes one more pair of delayed notifications. There is one timer, for the pairs that fall due next.
void Spool::announceLater() {
    const auto due = with_.clock.monotonicTime() + kAnnouncedAfter;
    MutexLock lock(pairsMutex_);
    pairs_.add(due);
    if (!pairsTimed_) {
        setPairsTimerLocked(kAnnouncedAfter);
    }
}

// Without memory for the timer, the next event asks for it again.
void Spool::setPairsTimerLocked(Clock::Duration delay) {
    dispatchQueue_.after(delay, [this] { postDuePairs(); });
    pairsTimed_ = true;
}

// Posts one pair and gives up its turn on the queue, so that the observers' hand-overs get theirs between two
// pairs.
void Spool::postDuePairs() {
    const auto now = with_.clock.monotonicTime();
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

// Gives every batch a name of its own: the present millisecond or, when that is taken, the next free one.
std::string Spool::nextFileName() {
    auto stamp = std::chrono::floor<std::chrono::milliseconds>(with_.clock.wallTime());
    // A clock that was set back far does not keep names in the future.
    if (stamp <= lastStamp_ && lastStamp_ - stamp < std::chrono::hours(1)) {
        stamp = lastStamp_ + std::chrono::milliseconds(1);
    }
    for (;; stamp += std::chrono::milliseconds(1)) {
        auto path = fmt::format("{}/{}{}", with_.configuration.eventDataPath(), kFilePrefix,
                                with_.dates.format("yyyyMMddHHmmssSSS", Date(stamp)));
        if (!FileUtils::doesFileExist(path)) {
            lastStamp_ = stamp;
            return path;
        }
    }
}

void Spool::keepUndelivered(const std::string& data) {
    const auto first =
        fmt::format("{}/{}{}", with_.configuration.eventDataPath(), kUndeliveredPrefix, with_.clock.epochSeconds());
    const MutexLock lock(undeliveredMutex_);
    auto path = first;
    for (int number = 2; FileUtils::doesFileExist(path); ++number) {
        path = fmt::format("{}_{}", first, number);
    }
    constexpr LogSource kForwarder("EventForwarder");
    kForwarder.error("A batch that was not delivered is no JSON array; its {} bytes are kept in {}", data.size(), path);
    const auto written = with_.files.writeAtomically(path, bytesOf(data), FileSystem::Durability::renamed);
    if (!written) {
        kForwarder.error("The {} bytes are lost: {}", data.size(), written.error().description);
    }
}

}  // namespace sentrova
