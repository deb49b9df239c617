#include "forwarding/Spool.h"

#include "core/FileUtils.h"
#include "core/LogSource.h"
#include "forwarding/DurableSpool.h"
#include "forwarding/EventQueueGCD.h"
#include "forwarding/SpoolFile.h"
#include "foundation/formats/Json.h"
#include "foundation/run/Current.h"

#include <utility>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("EventQueueGCD");

constexpr std::chrono::seconds kFirstTimeUpdate{30};
constexpr std::chrono::seconds kAnnouncedAfter{10};
constexpr std::chrono::seconds kFileAnnouncedAgain{10};
constexpr std::chrono::seconds kEventsAnnouncedAgain{30};

std::span<const std::uint8_t> bytesOf(const std::string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

Spool::Spool(const Surroundings& with)
    : with_(with),
      fileNames_(with.files, with.clock, with.dates),
      dispatchQueue_("com.kelvark.vantorix.eventqueue", with.clock) {}

void Spool::open() {
    if (isOpen_.exchange(true)) {
        return;
    }
    dispatchQueue_.after(kFirstTimeUpdate, [this] { post(EventQueueGCD::kTimeUpdateNotification); });
    FileUtils::createFolder(with_.configuration.eventDataPath());
    kLog.info("EventQueueGCD queueData initialised");
}

// Returns false if an observer threw an exception.
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
            auto* const durable = Current<DurableSpool>::orNull();
            std::erase_if(*names, [durable](const auto& name) {
                return SpoolFile::isKept(name) || (durable && durable->owns(name));
            });
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

Result<std::string> Spool::sendAgain(const std::string& keptName) {
    Result<std::string> sent = std::string();
    dispatchQueue_.sync([&] {
        const auto folder = with_.configuration.eventDataPath();
        auto name = fileNames_.next(folder);
        const auto moved = with_.files.move(folder + "/" + keptName, folder + "/" + name);
        if (!moved) {
            sent = moved.error();
            return;
        }
        sent = name;
        waiting_.add(std::move(name));
        announceNext();
    });
    return sent;
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
    const auto folder = with_.configuration.eventDataPath();
    const auto name = fileNames_.next(folder);
    const auto path = fmt::format("{}/{}", folder, name);
    kLog.info(" filename {}", path);
    write(path);
    queueData_.clear();
    length_ = 0;
    waiting_.add(name);
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
    // The caller sends this file now. A second announcement would find no file.
    waiting_.remove(name);
    announceNext();
    kLog.info("Going to read from file {}", file.path());
    auto content = with_.files.readText(file.path());
    if (!content) {
        kLog.error("The spooled file cannot be read: {}", content.error().description);
        if (SpoolFile::isShortage(content.error())) {
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

// Announces waiting files, the first name first, until kFilesAnnounced are announced and not yet read. Each file that
// `dequeue` reads makes room for the next one.
//
// A refused file (server not reachable, request could not begin, shortage of descriptors or memory, observer failed)
// returns to the waiting names, and the next round starts within ten seconds. Until then nothing is announced: the
// refused files are usually the oldest ones, and newer files must not overtake them. During an outage a round therefore
// costs one portion of announcements, however many files wait.
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

// Refused files share one timer and are announced together, so that they are sent in name order after an outage. A
// timer per file would lose that order.
void Spool::keepForNextRound(const std::string& name) {
    waiting_.add(name);
    if (!std::exchange(roundPending_, true)) {
        dispatchQueue_.after(kFileAnnouncedAgain, [this] {
            roundPending_ = false;
            announceNext();
        });
    }
}

// Only one repeated announcement is pending at a time. Each event causes one announcement after ten seconds. If each of
// those were repeated while the server is down for a day, they would pile up without end.
void Spool::announceEventsAgain() {
    kLog.debug("Created Event notification again");
    if (!std::exchange(eventsAnnouncedAgain_, true)) {
        dispatchQueue_.after(kEventsAnnouncedAgain, [this] {
            eventsAnnouncedAgain_ = false;
            post(EventQueueGCD::kEventForwardNotification);
        });
    }
}

// Each event is followed, ten seconds later, by a pair of notifications: deliver the events in memory, then store the
// time of the last event. Pairs are not merged: n events cause n pairs. DelayedPairs counts the pairs, and one timer,
// set for the next due time, serves them all.
//
// The pairs have their own mutex, so that this function, which runs on the caller's thread, does not wait for the queue
// a second time.
void Spool::announceLater() {
    const auto due = with_.clock.monotonicTime() + kAnnouncedAfter;
    MutexLock lock(pairsMutex_);
    pairs_.add(due);
    if (!pairsTimed_) {
        setPairsTimerLocked(kAnnouncedAfter);
    }
}

// If setting the timer throws for lack of memory, the flag stays unset and the next event tries again.
void Spool::setPairsTimerLocked(Clock::Duration delay) {
    dispatchQueue_.after(delay, [this] { postDuePairs(); });
    pairsTimed_ = true;
}

// Posts one pair per turn and queues itself for the next pair. A loop over all pairs of a burst would block the queue
// for its whole duration. `enqueue` and `dequeue` wait for the queue, so collection, and the deliveries that these
// notifications start, would stop meanwhile.
//
// A turn that finds no due pair ends the chain and sets the timer for the next run. pairsTimed_ is true as long as a
// turn or a timer is pending, so there is never a second chain.
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

void Spool::keepUndelivered(const std::string& data) {
    const auto first = fmt::format("{}/{}{}", with_.configuration.eventDataPath(), SpoolFile::kUndeliveredPrefix,
                                   with_.clock.epochSeconds());
    const MutexLock lock(undeliveredMutex_);
    auto path = first;
    for (int number = 2; FileUtils::doesFileExist(path); ++number) {
        path = fmt::format("{}_{}", first, number);
    }
    constexpr LogSource kForwarder("EventForwarder");
    kForwarder.error("An undelivered batch is not a JSON array; its {} bytes are kept in {}", data.size(), path);
    const auto written = with_.files.writeAtomically(path, bytesOf(data), FileSystem::Durability::renamed);
    if (!written) {
        kForwarder.error("The {} bytes are lost: {}", data.size(), written.error().description);
    }
}

}  // namespace sentrova
