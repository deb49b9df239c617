#include "control/ReplayPosition.h"

#include "control/TimeArgument.h"
#include "core/Configuration.h"
#include "core/ConfigurationCheck.h"
#include "core/GlobalConstants.h"
#include "core/PropertyListHandler.h"
#include "forwarding/Journal.h"
#include "forwarding/JournalWriter.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

using Outcome = JournalRecovery::Outcome;

Error inWords(std::string text) {
    return {kPosixErrorDomain, 0, std::move(text)};
}

std::string textOf(std::uint64_t time) {
    return timeText(static_cast<std::int64_t>(time));
}

bool isOf(const TrailPosition& position, const ReplayTrail& trail) {
    return position.trail.inode == trail.trail.inode &&
           (trail.firstRecord.empty() || position.trail.firstRecord == trail.firstRecord);
}

// The position with which exactly the records at or after the time are read again, and all unread ones as ever.
TrailPosition setBackTo(std::uint64_t since, const ReplayTrail& trail, TrailPosition position) {
    // The first reading since the switching-on is not over.
    const bool skipsOlder = position.since != 0 && position.offset < position.size;
    const bool hasRead = trail.records > 0 && trail.firstOffset < position.offset;
    if (hasRead) {
        // What is unread is new, whatever its time: only what was read is compared with the time.
        position.size = skipsOlder && since <= position.since ? position.size : position.offset;
        position.since = since;
        position.offset = 0;
        position.lastLength = 0;
        position.lastRecord.clear();
        position.time = 0;
    } else if (skipsOlder) {
        position.since = std::min(position.since, since);
    }
    return position;
}

}  // namespace

Result<ReplayPosition> ReplayPosition::read(const InstallationFolder& installation, FileSystem& files,
                                            const Cryptography& cryptography) {
    using State = ConfigurationFile::State;
    ReplayPosition found(installation, files, cryptography);
    const auto configuration = ConfigurationFiles::in(files, installation.conf());
    for (const auto& [name, file] :
         {std::pair(GlobalConstants::SERVER_INFO_FILE, &configuration.serverInfo),
          std::pair(GlobalConstants::MY_CONFIGURATIONS_FILE, &configuration.myConfigurations)}) {
        if (file->state == State::damaged || file->state == State::unreadable) {
            return inWords(fmt::format("{}/{}: {}", installation.conf(), name, file->reason));
        }
    }
    const auto& mine = configuration.myConfigurations.content;
    found.storedTime_ =
        static_cast<std::uint64_t>(std::max<std::int64_t>(mine[GlobalConstants::TIMESTAMP_LE].integerValue(), 0));
    found.isDurable_ = AgentSettings::from(mine).durableDelivery;
    if (const auto& recent = configuration.serverInfo.content[GlobalConstants::RECENT_EVENT_TIME_MILLIS];
        !recent.isNull()) {
        found.recentTime_ = recent.integerValue();
    }
    found.eventsToRead_ = ServerSettings::from(configuration.serverInfo.content).eventsToRead;
    Journal journal(files, cryptography);
    journal.setFolder(installation.spool());
    auto recovery = journal.read();
    if (!recovery) {
        return inWords(fmt::format("the journal of the spool cannot be read: {}", recovery.error().description));
    }
    if (recovery->outcome == Outcome::unknownVersion) {
        return inWords(
            "the journal of the spool was written by another version of the agent; use that version's "
            "sentrovactl");
    }
    found.journal_ = *std::move(recovery);
    return found;
}

bool ReplayPosition::isInJournal() const {
    const auto& state = journal_.state;
    return journal_.outcome == Outcome::recovered && (isDurable_ || !state.positions().empty() || state.baseline());
}

std::uint64_t ReplayPosition::newest() const {
    auto newest = storedTime_;
    if (isInJournal()) {
        for (const auto& [trail, position] : journal_.state.positions()) {
            newest = std::max(newest, position.time);
        }
    }
    return newest;
}

std::optional<std::string> ReplayPosition::refusal(std::uint64_t since) const {
    if (newest() == 0) {
        return fmt::format(
            "no position is stored ({}/{} has no {}): the agent's next start reads every trail from its "
            "beginning",
            installation_.conf(), GlobalConstants::MY_CONFIGURATIONS_FILE, GlobalConstants::TIMESTAMP_LE);
    }
    if (since > newest()) {
        return fmt::format("{} is later than the stored position, {}: the records since then have not been read yet",
                           textOf(since), textOf(newest()));
    }
    if (recentTime_ && *recentTime_ >= static_cast<std::int64_t>(since)) {
        return fmt::format(
            "{}/{}: {} is {} and would set the position forward again; remove the key, at the server too",
            installation_.conf(), GlobalConstants::SERVER_INFO_FILE, GlobalConstants::RECENT_EVENT_TIME_MILLIS,
            timeText(*recentTime_));
    }
    return std::nullopt;
}

std::optional<std::string> ReplayPosition::setBack(const ReplayTrails& trails, const ReplayHistory& history) const {
    const auto since = trails.since();
    const auto before = since > 0 ? since - 1 : 0;
    // A reader that is opened begins one second after the stored time.
    auto time = before;
    std::vector<journal::Entry> entries;
    if (isInJournal()) {
        entries = journalChanges(trails);
    } else if (isDurable_) {
        // The mode was switched on and has not begun. Its first start reads from the stored time itself.
        time = since;
    } else if (const auto exact = trails.storedTime()) {
        time = *exact;
    } else {
        // As after the durable mode was switched off: the next start reads on once from here, exactly.
        entries.emplace_back(journal::BaselineSet{since});
    }
    // Not earlier than the stored time: the agent drops such an entry.
    if (const auto problem = history.store(std::max(before, time))) {
        return fmt::format("the login history cannot be completed: {}; nothing was changed", *problem);
    }
    const bool changesJournal = !entries.empty();
    if (changesJournal) {
        if (const auto problem = changeJournal(std::move(entries))) {
            return fmt::format("the position in {} cannot be set back: {}", installation_.spool(),
                               problem->description);
        }
    }
    if (const auto problem = storeTime(time)) {
        return fmt::format("{} cannot be stored: {}{}", GlobalConstants::TIMESTAMP_LE, problem->description,
                           changesJournal ? "; the trails are read again all the same" : "");
    }
    return std::nullopt;
}

std::vector<journal::Entry> ReplayPosition::journalChanges(const ReplayTrails& trails) const {
    const auto& state = journal_.state;
    const auto since = trails.since();
    std::vector<journal::Entry> entries;
    if (state.baseline() && since < *state.baseline()) {
        entries.emplace_back(journal::BaselineSet{since});
    }
    for (const auto& trail : trails.all()) {
        for (const auto& [identity, position] : state.positions()) {
            if (!isOf(position, trail)) {
                continue;
            }
            const auto moved = setBackTo(since, trail, position);
            if (moved != position) {
                entries.emplace_back(journal::PositionMoved{moved});
                if (!state.openEvents().empty()) {
                    // If the batch that is being filled is lost later, its trails are read again from here.
                    entries.emplace_back(journal::TrailJoined{moved});
                }
            }
        }
    }
    // A record that the device has brought, and a trail not yet, would be left out when the trail brings it.
    for (const auto& [digest, record] : state.deviceRecords()) {
        if (record.time >= since) {
            entries.emplace_back(journal::DeviceRecordCounted{digest, -record.count, record.time});
        }
    }
    return entries;
}

std::optional<Error> ReplayPosition::changeJournal(std::vector<journal::Entry> entries) const {
    JournalWriter writer(files_, cryptography_);
    if (const auto opened = writer.open(installation_.spool()); !opened) {
        return opened.error();
    }
    std::vector<journal::Entry> ends;
    writer.add(entries, ends);
    JournalWriter::Effects effects;
    writer.commit(effects);
    // Entries that are on the disk are in force although a later step failed: the agent's next start makes that step.
    return effects.isComplete ? std::nullopt : std::optional(effects.error.value_or(posixError(EIO)));
}

std::optional<Error> ReplayPosition::storeTime(std::uint64_t time) const {
    const auto path = fmt::format("{}/{}", installation_.conf(), GlobalConstants::MY_CONFIGURATIONS_FILE);
    auto list = PropertyListHandler::initWithFile(path);
    auto content = list.dictionary() ? *list.dictionary() : Dictionary();
    content.set(GlobalConstants::TIMESTAMP_LE, fmt::format("{}", time));
    list.updateDictionary(std::move(content));
    list.WriteToProplist();
    return list.isWritten() ? std::nullopt : std::optional(inWords(path + " cannot be written"));
}

}  // namespace sentrova::control
