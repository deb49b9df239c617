#include "forwarding/JournalWriter.h"

#include "core/LogSource.h"
#include "forwarding/RecordDigest.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <span>
#include <utility>

namespace sentrova {

namespace {

constexpr LogSource kLog("DurableSpool");

constexpr std::uint64_t kLongestJournal = 4 * 1024 * 1024;

std::span<const std::uint8_t> bytesOf(const std::string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::optional<Error> errorOf(const Result<Done>& result) {
    return result ? std::nullopt : std::optional(result.error());
}

}  // namespace

Result<JournalRecovery> JournalWriter::open(const std::string& folder) {
    folder_ = folder;
    journal_.setFolder(folder);
    auto recovery = journal_.read();
    if (!recovery || recovery->outcome == JournalRecovery::Outcome::unknownVersion) {
        return recovery;
    }
    state_ = std::exchange(recovery->state, {});
    generation_ = recovery->generation;
    mustCheckpoint_ = !recovery->continuation || !journal_.resume(generation_, *recovery->continuation);
    // A killed agent may have left frames that only a flush makes safe.
    isUnflushed_ = !mustCheckpoint_;
    for (auto& [name, body] : state_.takeBodies()) {
        unflushedFiles_.insert(name);
        // After a loss of power, an unflushed file may have its length and not its content.
        const auto content = files_.readText(path(name));
        if (!content || *content != body) {
            bodies_.insert_or_assign(name, std::move(body));
        }
    }
    // A kill may have come between the end of a batch and the deletion of its file.
    for (const auto& [name, keptAs] : state_.ended()) {
        if (!state_.batches().contains(name) && files_.exists(path(name))) {
            ended_.insert_or_assign(name, keptAs);
        }
    }
    return recovery;
}

void JournalWriter::add(std::vector<journal::Entry>& entries, std::vector<journal::Entry>& ends) {
    add(entries, unwritten_);
    add(ends, unwrittenEnds_);
}

void JournalWriter::add(std::vector<journal::Entry>& entries, std::string& text) {
    auto next = entries.begin();
    try {
        for (; next != entries.end(); ++next) {
            encode(*next, text);
        }
    } catch (...) {
        entries.erase(entries.begin(), next);
        throw;
    }
    entries.clear();
}

// Memory may run out at any step. An entry is then tried again: its line is in the text exactly if the state has it.
void JournalWriter::encode(journal::Entry& entry, std::string& text) {
    if (auto* const sealed = std::get_if<journal::BatchSealed>(&entry)) {
        sealed->body = JournalState::bodyOf(state_.openEvents());
        sealed->batch.size = sealed->body.size();
        sealed->batch.digest = digestOf(sealed->body, cryptography_);
        unflushedFiles_.insert(sealed->batch.name);
    } else if (const auto* const key = std::get_if<journal::KeyGiven>(&entry)) {
        keyed_.push_back(key->name);
    } else if (const auto* const ended = std::get_if<journal::BatchEnded>(&entry)) {
        (&text == &unwritten_ ? endedWithEntries_ : ended_).insert_or_assign(ended->name, ended->keptAs);
    } else if (auto* const part = std::get_if<journal::PartSealed>(&entry)) {
        if (const auto whole = state_.batches().find(part->whole); whole != state_.batches().end()) {
            part->batch.from = whole->second.from;
        }
        unflushedFiles_.insert(part->batch.name);
    }
    const auto size = text.size();
    try {
        journal::encode(entry, text);
        state_.apply(std::move(entry));
    } catch (...) {
        text.resize(size);
        throw;
    }
    // Moves the nodes, which needs no memory.
    bodies_.merge(state_.takeBodies());
}

std::optional<Error> JournalWriter::write() {
    try {
        return writeText();
    } catch (...) {
        distrustFile();
        throw;
    }
}

void JournalWriter::commit(Effects& effects) {
    try {
        writeAndFlush(effects);
    } catch (...) {
        distrustFile();
        throw;
    }
}

// After an exception it is not known what is in the file. A checkpoint writes everything that was added.
void JournalWriter::distrustFile() {
    mustCheckpoint_ = true;
    generation_ = std::max(generation_, journal_.generation());
}

void JournalWriter::writeAndFlush(Effects& effects) {
    effects.error.reset();
    const auto note = [&effects](const Effect& problem) { effects.error = effects.error ? effects.error : problem; };
    note(writeText());
    note(flush());
    if (!isUnflushed_ && unwritten_.empty()) {
        note(writeBodies(effects));
        effects.keyed.insert(effects.keyed.end(), keyed_.begin(), keyed_.end());
        keyed_.clear();
        ended_.merge(endedWithEntries_);
    }
    if (!isUnflushed_ && unwrittenEnds_.empty()) {
        endBatches(effects);
    }
    note(checkpointIfDue());
    effects.isComplete = !isUnflushed_ && unwritten_.empty();
}

// On a full disk the ends of batches may use the journal's reserve: they make room.
std::optional<Error> JournalWriter::writeText() {
    if (mustCheckpoint_) {
        return checkpoint();
    }
    if (unwritten_.empty() && unwrittenEnds_.empty()) {
        return std::nullopt;
    }
    const bool onlyEnds = unwritten_.empty();
    const auto size = unwritten_.size();
    unwritten_ += unwrittenEnds_;
    const auto written = journal_.append(unwritten_, onlyEnds);
    if (written) {
        unwritten_.clear();
        unwrittenEnds_.clear();
        isUnflushed_ = true;
        return std::nullopt;
    }
    unwritten_.resize(size);
    if (!onlyEnds && !unwrittenEnds_.empty() && journal_.append(unwrittenEnds_, true)) {
        unwrittenEnds_.clear();
        isUnflushed_ = true;
    }
    return written.error();
}

std::optional<Error> JournalWriter::flush() {
    if (!isUnflushed_) {
        return std::nullopt;
    }
    const auto flushed = journal_.flush();
    isUnflushed_ = !flushed;
    // After a failure it is not known what is on the disk.
    mustCheckpoint_ = mustCheckpoint_ || !flushed;
    return errorOf(flushed);
}

std::optional<Error> JournalWriter::writeBodies(Effects& effects) {
    while (!bodies_.empty()) {
        const auto& [name, body] = *bodies_.begin();
        const auto written = files_.writeAtomically(path(name), bytesOf(body), FileSystem::Durability::renamed);
        if (!written) {
            return written.error();
        }
        kLog.info(" filename {}", path(name));
        if (const auto batch = state_.batches().find(name); batch != state_.batches().end()) {
            effects.sealed.push_back(batch->second);
        }
        bodies_.erase(bodies_.begin());
    }
    return std::nullopt;
}

void JournalWriter::endBatches(Effects& effects) {
    while (!ended_.empty()) {
        const auto& [name, keptAs] = *ended_.begin();
        const auto left = keptAs.empty() ? files_.remove(path(name)) : files_.move(path(name), path(keptAs));
        if (left || left.error().code == ENOENT) {
            left_.insert(name);
            effects.gone.push_back(name);
            effects.madeRoom = effects.madeRoom || (left && keptAs.empty());
        } else {
            kLog.error("The file {} was sent but is still there; it is sent again after the next start: {}", path(name),
                       left.error().description);
            effects.stuck.push_back(name);
        }
        ended_.erase(ended_.begin());
    }
}

std::optional<Error> JournalWriter::checkpointIfDue() {
    const bool isDue = journal_.isOpen() && journal_.size() > std::max(kLongestJournal, 2 * checkpointSize_);
    return isDue ? checkpoint() : std::nullopt;
}

// The new journal does not have the events of batches whose files are written, so those are flushed first.
std::optional<Error> JournalWriter::checkpoint() {
    if (auto problem = flushFiles()) {
        return problem;
    }
    std::string text;
    for (const auto& entry : state_.entries()) {
        const auto* const known = std::get_if<journal::BatchKnown>(&entry);
        const auto body = known ? bodies_.find(known->batch.name) : bodies_.end();
        if (body == bodies_.end()) {
            journal::encode(entry, text);
        } else {
            // All events as one: the text between the brackets.
            journal::encode(journal::PartEvent{body->second.substr(1, body->second.size() - 2)}, text);
            journal::encode(journal::PartSealed{known->batch, {}}, text);
        }
    }
    if (text.empty()) {
        // A frame is never empty.
        journal::encode(journal::BaselineSet{}, text);
    }
    const auto done = journal_.checkpoint(generation_ + 1, text);
    if (journal_.generation() != generation_ + 1) {
        return errorOf(done);
    }
    // If only the position file failed, it stays the one of an earlier generation.
    ++generation_;
    checkpointSize_ = journal_.size();
    unwritten_.clear();
    unwrittenEnds_.clear();
    isUnflushed_ = false;
    mustCheckpoint_ = !journal_.isOpen();
    std::erase_if(unflushedFiles_, [this](const auto& name) { return !bodies_.contains(name); });
    // A deletion survives a loss of power once a later checkpoint has flushed the folder.
    state_.dropEnded(std::exchange(leftBefore_, std::exchange(left_, {})));
    return errorOf(done);
}

Result<Done> JournalWriter::flushContent(const std::string& path) {
    const auto file = files_.openForWriting(path);
    return file ? (*file)->flush() : file.error();
}

std::optional<Error> JournalWriter::flushFiles() {
    std::vector<std::string> names;
    std::ranges::copy_if(unflushedFiles_, std::back_inserter(names), [this](const auto& name) {
        return state_.batches().contains(name) && !bodies_.contains(name);
    });
    for (const auto& name : names) {
        // The last flush includes the folder, for all of them.
        const auto flushed = name == names.back() ? files_.flushFile(path(name)) : flushContent(path(name));
        if (!flushed && flushed.error().code != ENOENT) {
            return flushed.error();
        }
    }
    return std::nullopt;
}

std::optional<std::string> JournalWriter::rebuild(const std::string& name, const std::string& digest) {
    auto recovery = journal_.read();
    if (!recovery) {
        return std::nullopt;
    }
    auto bodies = recovery->state.takeBodies();
    const auto body = bodies.find(name);
    if (body == bodies.end() || digestOf(body->second, cryptography_) != digest) {
        return std::nullopt;
    }
    kLog.error("The file {} is missing or altered; it is made anew from the journal", path(name));
    const auto written = files_.writeAtomically(path(name), bytesOf(body->second), FileSystem::Durability::renamed);
    if (!written) {
        kLog.error("{}", written.error().description);
    }
    return std::move(body->second);
}

}  // namespace sentrova
