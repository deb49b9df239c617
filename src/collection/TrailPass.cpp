#include "collection/TrailPass.h"

#include "collection/ReadingCount.h"
#include "collection/RecordEvents.h"
#include "core/LogSource.h"
#include "forwarding/RecordDigest.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <memory>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("DurableCollection");
constexpr LogSource kProgress = kLog.in(LogCategory::Event);

// A rename between listing and opening hides a trail, and the spool refuses a position that it has taken back
// meanwhile. Then the pass begins again, this often at most.
constexpr int kAttempts = 3;
// The position moves on after at most this many records without an event.
constexpr std::uint64_t kMostUnaccepted = 4096;
// The first record of a trail is short. It is read without the rest of a large file.
constexpr std::size_t kFirstRead = 4096;

std::pair<std::uint64_t, std::uint64_t> keyOf(const Trail& trail) {
    return {trail.device, trail.inode};
}

TrailPosition beginningOf(const Trail& trail, const TrailIdentity& identity) {
    TrailPosition position;
    position.trail = identity;
    position.name = trail.name;
    position.size = trail.size;
    position.isOpen = trail.isOpen;
    return position;
}

}  // namespace

TrailPass::TrailPass(const Surroundings& surroundings, DurableSpool::Cancelled isCancelled)
    : with_(surroundings),
      isCancelled_(std::move(isCancelled)),
      selection_(EventSelection::split(with_.configuration.eventsToRead())),
      folder_(with_.files) {}

bool TrailPass::mayRead() const {
    return !isCancelled_() && with_.configuration.isEnabled() && !with_.configuration.maxEventDataSizeReached();
}

std::string TrailPass::digestOf(std::span<const std::uint8_t> bytes) const {
    return sentrova::digestOf(bytes, with_.cryptography);
}

void TrailPass::tellOnce(Seen& seen, const std::string& text) {
    if (seen.told.insert(text).second) {
        kLog.error("{}", text);
    }
}

bool TrailPass::run() {
    for (int attempt = 1; mayRead(); ++attempt) {
        hasVanished_ = false;
        const auto trails = list();
        if (!trails) {
            return true;
        }
        if (const auto since = with_.spool.baselineTime()) {
            setBaseline(*trails, *since, attempt == kAttempts);
        }
        known_ = with_.spool.positions();
        const bool areRead =
            std::ranges::all_of(*trails, [&](const Trail& trail) { return readTrail(trail, *trails); });
        if (areRead && !hasVanished_) {
            forgetRemoved(*trails);
            return true;
        }
        if (attempt == kAttempts) {
            return areRead;
        }
    }
    return false;
}

std::optional<std::vector<Trail>> TrailPass::list() {
    auto trails = folder_.trails();
    if (trails) {
        with_.memory.told.clear();
        return *std::move(trails);
    }
    // A system that has never audited has no folder, and no trails at the switching-on.
    if (trails.error().code == ENOENT) {
        if (with_.spool.baselineTime()) {
            with_.spool.setBaseline({});
        }
    } else if (std::exchange(with_.memory.told, trails.error().description) != trails.error().description) {
        kLog.error("{}", trails.error().description);
    }
    return std::nullopt;
}

// Without this, the first pass after the switching-on would report everything in the trails a second time.
void TrailPass::setBaseline(const std::vector<Trail>& trails, std::uint64_t since, bool isLastAttempt) {
    std::vector<TrailPosition> positions;
    for (const auto& trail : trails) {
        auto& seen = with_.memory.seen[keyOf(trail)];
        const auto file = open(trail, seen);
        if (!file || !identify(trail, *file, seen)) {
            continue;
        }
        auto position = beginningOf(trail, *seen.identity);
        position.since = since;
        if (!trail.isOpen && trail.modified < dateFromEpoch(static_cast<double>(since))) {
            position.offset = trail.size;
            position.since = 0;
        }
        positions.push_back(std::move(position));
    }
    if (!hasVanished_ || isLastAttempt) {
        with_.spool.setBaseline(positions);
    }
}

bool TrailPass::readTrail(const Trail& trail, const std::vector<Trail>& trails) {
    auto& seen = with_.memory.seen[keyOf(trail)];
    if (isSettled(trail, seen)) {
        return true;
    }
    try {
        const auto file = open(trail, seen);
        if (!file || !identify(trail, *file, seen)) {
            return true;
        }
        auto position = positionOf(trail, *seen.identity, trails);
        if (!position) {
            return false;
        }
        Reading reading{.trail = trail, .file = *file, .seen = seen, .position = *position, .accepted = *position};
        return !checkPosition(reading) || readRecords(reading);
    } catch (const std::exception& exception) {
        tellOnce(seen, fmt::format("{}: {}", trail.path(), exception.what()));
        return true;
    }
}

bool TrailPass::isSettled(const Trail& trail, const Seen& seen) const {
    if (!seen.settledAt || seen.trail != trail) {
        return false;
    }
    // The spool takes a position back if events behind it are lost on the disk.
    return !seen.identity || std::ranges::any_of(known_, [&](const TrailPosition& position) {
        return position.trail == seen.identity && position.offset == seen.settledAt;
    });
}

std::unique_ptr<TrailFile> TrailPass::open(const Trail& trail, Seen& seen) {
    auto file = TrailFile::open(with_.files, trail.path());
    if (file) {
        return *std::move(file);
    }
    if (file.error().code == ENOENT) {
        hasVanished_ = true;
    } else {
        tellOnce(seen, file.error().description);
    }
    return nullptr;
}

// Returns false if the trail has no first record that could be read.
bool TrailPass::identify(const Trail& trail, TrailFile& file, Seen& seen) {
    file.seek(0, kFirstRead);
    bsm::RecordReader reader(file);
    const auto length = reader.au_read_rec();
    std::string first;
    if (length > 0) {
        first = digestOf(reader.record());
    } else if (length == 0) {
        // Too long to be read: its beginning stands for it.
        const auto beginning = file.bytes(0, kFirstRead);
        first = beginning ? digestOf(*beginning) : "";
    }
    if (first.empty()) {
        logEnd(trail, file, seen, reader, 0);
        seen.identity.reset();
        seen.trail = trail;
        seen.settledAt = file.problem() == 0 ? std::optional<std::uint64_t>(0) : std::nullopt;
        return false;
    }
    TrailIdentity identity{.device = trail.device, .inode = trail.inode, .firstRecord = std::move(first)};
    if (seen.identity != identity) {
        seen = {};
        seen.identity = std::move(identity);
    }
    return true;
}

// Returns nothing if the pass ends early.
std::optional<TrailPosition> TrailPass::positionOf(const Trail& trail, const TrailIdentity& identity,
                                                   const std::vector<Trail>& trails) {
    const auto same = std::ranges::find(known_, identity, &TrailPosition::trail);
    if (same != known_.end()) {
        return *same;
    }
    // A volume may get another number at each start of the system.
    const auto moved = std::ranges::find_if(known_, [&](const TrailPosition& position) {
        const auto& former = position.trail;
        return former.inode == identity.inode && former.firstRecord == identity.firstRecord &&
               std::ranges::none_of(trails, [&](const Trail& other) {
                   return other.device == former.device && other.inode == former.inode;
               });
    });
    if (moved == known_.end()) {
        return beginningOf(trail, identity);
    }
    const auto former = std::exchange(moved->trail, identity);
    if (!with_.spool.accept(std::nullopt, *moved, isCancelled_)) {
        return std::nullopt;
    }
    with_.spool.forget(former);
    return *moved;
}

// Compares the record before the position with the one that was read last. Returns false if the file cannot be read.
bool TrailPass::checkPosition(Reading& reading) {
    auto& position = reading.position;
    bool isSame = position.offset <= reading.trail.size;
    if (isSame && position.lastLength > 0) {
        const auto last = reading.file.bytes(position.offset - position.lastLength, position.lastLength);
        if (!last) {
            tellOnce(reading.seen,
                     fmt::format("Reading {} failed: {}", reading.trail.path(), last.error().description));
            return false;
        }
        isSame = digestOf(*last) == position.lastRecord;
    }
    if (!isSame) {
        kLog.error(
            "The record before offset {} of {} is not the one that was read last; the trail is read again from "
            "its beginning, and its events may come twice",
            position.offset, reading.trail.path());
        position.offset = 0;
        position.lastLength = 0;
        position.lastRecord.clear();
        reading.accepted = position;
    }
    return true;
}

bool TrailPass::readRecords(Reading& reading) {
    auto& position = reading.position;
    const auto begin = position.offset;
    reading.file.seek(begin);
    bsm::RecordReader reader(reading.file);
    // Of the record being read: its digest, once it is selected, and its events.
    std::string digest;
    bool isMatched = false;
    std::vector<Dictionary> events;
    ReadingCount count(with_.statistics, ReadingCount::kTrail);
    RecordEvents maker(
        [&](std::uint16_t type, std::uint64_t seconds) {
            position.time = seconds;
            count.noteTime(seconds);
            if (seconds < position.since || !selection_.contains(type)) {
                return false;
            }
            if (digest.empty()) {
                digest = digestOf(reader.record());
                isMatched = with_.spool.takeDeviceRecord(digest);
            }
            return !isMatched;
        },
        [&](Dictionary event) { events.push_back(std::move(event)); });
    while (!isCancelled_()) {
        count.update({.records = reading.records, .collected = reading.collected, .excluded = maker.excluded()});
        const auto length = reader.au_read_rec();
        if (length < 0) {
            kProgress.info("{} ended: {} records read, {} events collected, {} excluded", reading.trail.path(),
                           reading.records, maker.events(), maker.excluded());
            return finish(reading, reader, begin + reader.position());
        }
        if (length == 0) {
            tellOnce(reading.seen,
                     fmt::format("A record of {} bytes at offset {} of {} is skipped; the limit is {} bytes",
                                 reader.skippedLength(), begin + reader.position(), reading.trail.path(),
                                 bsm::RecordReader::kMaximumRecordLength));
            continue;
        }
        ++reading.records;
        digest.clear();
        isMatched = false;
        events.clear();
        maker.read(reader.record());
        position.offset = begin + reader.position();
        position.lastLength = static_cast<std::uint64_t>(length);
        // What was appended since the switching-on is new, whatever its time.
        position.since = position.offset < position.size ? position.since : 0;
        const bool isSelected = !digest.empty();
        if (!isSelected && ++reading.unaccepted < kMostUnaccepted) {
            continue;
        }
        position.lastRecord = isSelected ? digest : digestOf(reader.record());
        // A match takes effect with the position, so it must not be left without one.
        if ((!isMatched && !mayRead()) || !accept(std::move(events), reading)) {
            return false;
        }
        if (isSelected && !isMatched) {
            with_.recent.add(digest);
        }
    }
    return false;
}

bool TrailPass::accept(std::vector<Dictionary> events, Reading& reading) {
    const auto accepted = events.size();
    std::optional<Dictionary> last;
    if (!events.empty()) {
        last = std::move(events.back());
        events.pop_back();
    }
    // A damaged record may have several events. The position moves with the last one.
    for (auto& event : events) {
        if (!with_.spool.accept(std::move(event), reading.accepted, isCancelled_)) {
            return false;
        }
    }
    if (!with_.spool.accept(std::move(last), reading.position, isCancelled_)) {
        return false;
    }
    reading.accepted = reading.position;
    reading.unaccepted = 0;
    reading.collected += accepted;
    return true;
}

// Moves the position to the end of what was read.
bool TrailPass::finish(Reading& reading, const bsm::RecordReader& reader, std::uint64_t end) {
    auto& position = reading.position;
    logEnd(reading.trail, reading.file, reading.seen, reader, end);
    if (position.offset != end) {
        // The last record was too long to be read, so it has no digest.
        position.offset = end;
        position.lastLength = 0;
        position.lastRecord.clear();
    } else if (reading.unaccepted > 0) {
        const auto last = reading.file.bytes(end - position.lastLength, position.lastLength);
        if (!last) {
            tellOnce(reading.seen,
                     fmt::format("Reading {} failed: {}", reading.trail.path(), last.error().description));
            return true;
        }
        position.lastRecord = digestOf(*last);
    }
    position.name = reading.trail.name;
    position.isOpen = reading.trail.isOpen;
    if (position.since == 0) {
        position.size = std::max(reading.trail.size, end);
    }
    if (position != reading.accepted && !accept({}, reading)) {
        return false;
    }
    reading.seen.trail = reading.trail;
    if (reader.end() != bsm::RecordReader::End::kReadError) {
        reading.seen.settledAt = end;
    }
    if (reader.end() == bsm::RecordReader::End::kEndOfData) {
        reading.seen.told.clear();
    }
    return true;
}

void TrailPass::logEnd(const Trail& trail, const TrailFile& file, Seen& seen, const bsm::RecordReader& reader,
                       std::uint64_t end) {
    using End = bsm::RecordReader::End;
    if (reader.end() == End::kReadError) {
        tellOnce(seen, fmt::format("Reading {} failed after {} bytes: {}", trail.path(), end,
                                   posixError(file.problem()).description));
    } else if (reader.end() == End::kGarbage || (reader.end() == End::kTruncatedRecord && !trail.isOpen)) {
        const auto unread = trail.size > end ? trail.size - end : reader.leftUnread();
        tellOnce(seen, fmt::format("{} bytes of {} are left unread: the data at offset {} is {}", unread, trail.path(),
                                   end, reader.end() == End::kGarbage ? "not an audit record" : "a truncated record"));
    }
}

void TrailPass::forgetRemoved(const std::vector<Trail>& trails) {
    auto& seen = with_.memory.seen;
    std::erase_if(seen,
                  [&](const auto& entry) { return std::ranges::find(trails, entry.first, keyOf) == trails.end(); });
    const auto isThere = [&](const TrailPosition& position) {
        return std::ranges::any_of(trails, [&](const Trail& trail) {
            const auto& identity = seen[keyOf(trail)].identity;
            return trail.inode == position.trail.inode &&
                   (!identity || identity->firstRecord == position.trail.firstRecord);
        });
    };
    std::erase_if(known_, isThere);
    if (known_.empty()) {
        return;
    }
    // A rename while the folder is read may hide a file. It cannot do so twice.
    const auto again = folder_.trails();
    for (const auto& position : known_) {
        const auto isNamed = [&](const Trail& trail) { return trail.inode == position.trail.inode; };
        if (again && (std::ranges::any_of(trails, isNamed) || std::ranges::none_of(*again, isNamed))) {
            forgetRemoved(position);
        }
    }
}

void TrailPass::forgetRemoved(const TrailPosition& position) {
    if (position.isOpen || position.size > position.offset) {
        kLog.error("The trail {} was removed before it was read to its end: {} bytes after offset {} are lost{}",
                   position.name, position.size - std::min(position.size, position.offset), position.offset,
                   position.isOpen ? ", and so is what was written to it afterwards" : "");
    }
    with_.spool.forget(position.trail);
}

}  // namespace sentrova
