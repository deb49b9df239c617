#include "forwarding/JournalRecovery.h"

#include "forwarding/JournalFormat.h"
#include "forwarding/RecordDigest.h"

#include <algorithm>
#include <utility>

#include <fmt/format.h>

namespace sentrova {

namespace {

using journal::Entry;
using journal::ParsedFile;

// The entries of a frame; nothing if one of them makes no sense.
std::optional<std::vector<Entry>> entriesOf(std::string_view content) {
    std::vector<Entry> entries;
    while (!content.empty()) {
        const auto end = content.find('\n');
        auto entry = journal::decode(content.substr(0, end));
        if (!entry) {
            return std::nullopt;
        }
        entries.push_back(*std::move(entry));
        content.remove_prefix(end + 1);
    }
    return entries;
}

class Recovery {
  public:
    Recovery(const std::optional<std::string>& journal, const std::optional<std::string>& position,
             const std::function<std::optional<std::string>(const std::string&)>& contentOf,
             const Cryptography& cryptography)
        : contentOf_(contentOf), cryptography_(cryptography) {
        if (position) {
            position_ = journal::parse(*position, journal::FileKind::position, cryptography);
        }
        if (journal) {
            const auto likely = position_ ? position_->generation.value_or(0) : 0;
            journal_ = journal::parse(*journal, journal::FileKind::journal, cryptography, likely);
        }
    }

    JournalRecovery run() && {
        if (!journal_ && !position_) {
            return std::move(result_);
        }
        result_.outcome = JournalRecovery::Outcome::recovered;
        for (const auto* const file : {&journal_, &position_}) {
            if (*file && (*file)->state == ParsedFile::State::unknownVersion) {
                result_.outcome = JournalRecovery::Outcome::unknownVersion;
            }
            result_.generation = std::max(result_.generation, *file ? (*file)->generation.value_or(0) : 0);
        }
        if (result_.outcome == JournalRecovery::Outcome::recovered) {
            useFiles();
        }
        return std::move(result_);
    }

  private:
    // The checkpoint in a file, if it is whole.
    static std::optional<std::vector<Entry>> checkpointIn(const std::optional<ParsedFile>& file) {
        return file && !file->frames.empty() && file->frames.front().number == 0
                   ? entriesOf(file->frames.front().content)
                   : std::nullopt;
    }

    void useFiles() {
        const auto ofPosition = checkpointIn(position_);
        auto base = checkpointIn(journal_);
        const bool isOlder = journal_ && ofPosition && journal_->generation.value_or(0) < *position_->generation;
        const bool isSame = journal_ && ofPosition && !journal_->frames.empty() &&
                            journal_->generation.value_or(*position_->generation) == *position_->generation;
        isPositionWhole_ = ofPosition.has_value();
        tellPosition();
        const bool isJournalUsed = (base && !isOlder) || isSame;
        if (!base || isOlder) {
            base = ofPosition;
        }
        if (!base) {
            result_.problems.emplace_back(
                "The journal and the position of the spool are damaged; reading begins again at the beginning of the "
                "trails, so that every event of theirs may come twice");
            return;
        }
        for (const auto& entry : *base) {
            result_.state.apply(entry);
        }
        if (isJournalUsed) {
            useFrames();
        } else {
            result_.problems.emplace_back(
                "The journal of the spool is missing or damaged; reading begins again at the positions of the last "
                "checkpoint, so that events accepted since then may come twice");
        }
    }

    void tellPosition() {
        // The first journal is written before the first position file.
        const bool isFirst = journal_ && journal_->generation == 1 && !position_;
        if (!isPositionWhole_ && !isFirst) {
            result_.problems.emplace_back("The position file of the spool is missing or damaged; it is made anew");
        }
    }

    void useFrames() {
        std::uint64_t next = 1;
        bool isBehindGap = false;
        std::size_t dropped = 0;
        for (const auto& frame : journal_->frames) {
            if (frame.number == 0) {
                continue;
            }
            const auto entries = entriesOf(frame.content);
            isBehindGap = isBehindGap || frame.number != next || !entries;
            next = frame.number + 1;
            if (!entries) {
                continue;
            }
            for (const auto& entry : *entries) {
                if (!isBehindGap) {
                    result_.state.apply(entry);
                } else if (!applyBehindGap(entry)) {
                    ++dropped;
                }
            }
        }
        for (const auto& [name, entries] : setAside_) {
            for (const auto& entry : entries) {
                result_.state.apply(entry);
            }
        }
        if (journal_->state == ParsedFile::State::damaged || isBehindGap) {
            result_.problems.push_back(
                isBehindGap
                    ? fmt::format("The journal of the spool is damaged: {} bytes of it are lost; reading begins "
                                  "again before them, so that {} entries behind them may come twice",
                                  journal_->lost, dropped)
                    : fmt::format("The journal of the spool is damaged in {} bytes; nothing that they said is "
                                  "lost",
                                  journal_->lost));
            return;
        }
        if (journal_->state == ParsedFile::State::damagedTail) {
            result_.problems.push_back(fmt::format(
                "The last {} bytes of the journal of the spool are damaged; reading begins again before them, so that "
                "their events may come twice",
                journal_->lost));
            return;
        }
        if (journal_->state == ParsedFile::State::brokenTail) {
            result_.notes.push_back(fmt::format(
                "The last write to the journal of the spool was cut short; its {} bytes are dropped, and their records "
                "are read again",
                journal_->lost));
        }
        if (isPositionWhole_) {
            result_.continuation = {.end = journal_->end, .nextFrame = next};
        }
    }

    // Returns false for an entry that is dropped.
    bool applyBehindGap(const Entry& entry) {
        if (const auto* const event = std::get_if<journal::EventAccepted>(&entry); event && !event->isFromDevice) {
            return false;
        }
        // The records of the trails are read again, and matched again with those of the device.
        const auto* const counted = std::get_if<journal::DeviceRecordCounted>(&entry);
        if ((counted && counted->count < 0) || std::holds_alternative<journal::PositionMoved>(entry) ||
            std::holds_alternative<journal::TrailForgotten>(entry) ||
            std::holds_alternative<journal::TrailJoined>(entry)) {
            return true;
        }
        if (const auto* const sealed = std::get_if<journal::BatchSealed>(&entry)) {
            return adopt(sealed->batch);
        }
        if (const auto* const ended = std::get_if<journal::BatchEnded>(&entry)) {
            setAside_.erase(ended->name);
        }
        result_.state.apply(entry);
        return true;
    }

    // A batch that was sealed behind the gap. Its file has all its events, even those that the journal has lost.
    bool adopt(const SpooledBatch& batch) {
        const auto content = contentOf_(batch.name);
        const bool isWhole = content && digestOf(*content, cryptography_) == batch.digest;
        // If the file is lost later, reading begins again at these positions.
        auto from = result_.state.positions();
        if (isWhole) {
            for (const auto& position : result_.state.openFrom()) {
                from.insert_or_assign(position.trail, position);
            }
        } else {
            setAside(batch.name);
        }
        // Takes the events of the batch out of the open one.
        result_.state.apply(journal::BatchSealed{batch, {}});
        result_.state.apply(journal::BatchEnded{batch.name, {}});
        if (content) {
            // An altered file is known too: the spool then keeps it under another name instead of sending it.
            auto known = batch;
            for (const auto& [trail, position] : from) {
                known.from.push_back(position);
            }
            result_.state.apply(journal::BatchKnown{std::move(known)});
        } else {
            result_.state.dropEnded({batch.name});
        }
        return isWhole;
    }

    // Without a whole file, the batch's events that are known go back into the open batch in the end, unless the batch
    // has ended by then. They must not stay there meanwhile, because the next batch to be sealed does not have them.
    void setAside(const std::string& name) {
        auto& entries = setAside_[name];
        for (const auto& position : result_.state.openFrom()) {
            entries.emplace_back(journal::TrailJoined{position});
        }
        for (const auto& event : result_.state.openEvents()) {
            entries.emplace_back(journal::EventAccepted{event.text, event.isFromDevice});
        }
    }

    const std::function<std::optional<std::string>(const std::string&)>& contentOf_;
    const Cryptography& cryptography_;
    std::optional<ParsedFile> journal_;
    std::optional<ParsedFile> position_;
    bool isPositionWhole_ = false;
    // The open batch's part of each batch without a whole file, by the batch's name.
    std::map<std::string, std::vector<Entry>> setAside_;
    JournalRecovery result_;
};

}  // namespace

JournalRecovery recover(const std::optional<std::string>& journal, const std::optional<std::string>& position,
                        const std::function<std::optional<std::string>(const std::string& name)>& contentOf,
                        const Cryptography& cryptography) {
    return Recovery(journal, position, contentOf, cryptography).run();
}

}  // namespace sentrova
