// The journal and the position file at a start. If the first byte is even, the rest is the journal, the position file
// and the content of each batch's file, with record separators (0x1E) between them. If it is odd, the rest is the lines
// that a spool has written, and the damage that followed; see History.

#include "forwarding/JournalFormat.h"
#include "forwarding/JournalRecovery.h"
#include "forwarding/RecordDigest.h"
#include "fuzz/Fuzz.h"
#include "platform/openssl/OpenSslCryptography.h"

#include <algorithm>
#include <map>

namespace sentrova::testing {

namespace {

using journal::Entry;
using journal::FileKind;

const Cryptography& cryptography() {
    static const auto cryptography = platform::makeOpenSslCryptography();
    return *cryptography;
}

std::string textOf(const JournalState& state) {
    std::string text;
    for (const auto& entry : state.entries()) {
        journal::encode(entry, text);
    }
    return text;
}

bool isNameInFolder(const std::string& name) {
    return !name.empty() && !name.starts_with('.') &&
           name.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
}

// What holds for any files.
void check(const JournalState& state) {
    const auto text = textOf(state);
    JournalState again;
    for (const auto line : parts(text, '\n', text.size())) {
        const auto entry = journal::decode(line);
        require(entry || line.empty(), "a checkpoint can be read", line);
        if (entry) {
            again.apply(*entry);
        }
    }
    require(textOf(again) == text, "a checkpoint makes the same state", text);
    for (const auto& [name, batch] : state.batches()) {
        require(isNameInFolder(name) && !state.ended().contains(name), "a waiting batch may have a file", name);
    }
    for (const auto& [name, keptAs] : state.ended()) {
        require(isNameInFolder(name) && (keptAs.empty() || isNameInFolder(keptAs)), "an ended batch has a file", name);
    }
}

// The lines of the journal that a spool has written, the first ones as its checkpoint. Besides them there are
//   #    the next frame begins
//   #C   likewise; the disk damages the frame at a place that the character C tells; `<` cuts the last frame short
//   -    the disk loses the file of the batch that was sealed last
//   ~    the disk alters that file
// The text of an event is its number, and a batch gets the digest of its events.
class History {
  public:
    explicit History(std::string_view lines) {
        frames_.emplace_back();
        for (const auto line : parts(lines, '\n', 400)) {
            add(line);
        }
        endFrame();
    }

    enum class Position { same, earlier, missing };
    // What a start after the damage must find.
    void check(Position position) const;

  private:
    struct Frame {
        std::string content;
        std::optional<char> damage;
        bool isEntries = true;
        // The state after the frame.
        JournalState after;
        bool isWhole() const { return isEntries && !damage; }
    };
    struct Event {
        std::size_t frame = 0;
        bool isFromDevice = false;
        std::string batch;
    };
    struct Batch {
        std::size_t frame = 0;
        // Of the file. Absent: the disk has lost it.
        std::optional<std::string> content;
        bool isWhole = true;
        std::optional<std::size_t> endedIn = std::nullopt;
    };

    void add(std::string_view line);
    void addEvent(bool isFromDevice);
    void addEntry(Entry entry);
    bool seal(SpooledBatch& batch, const std::vector<JournalState::OpenEvent>& events);
    void put(const Entry& entry);
    void endFrame();
    std::string journal() const;
    void checkBeforeDamage(const JournalRecovery& recovery, std::size_t damaged) const;
    bool mustBeThere(const Event& event, std::size_t damaged) const;
    // The position file may stand in for a damaged checkpoint.
    bool isReadable(std::size_t frame) const { return frame == 0 || frames_[frame].isWhole(); }

    std::vector<Frame> frames_;
    JournalState state_;
    std::map<std::string, Event> events_;
    std::map<std::string, Batch> batches_;
    std::string sealedLast_;
};

void History::add(std::string_view line) {
    if (line.starts_with('#')) {
        endFrame();
        frames_.emplace_back();
        frames_.back().damage = line.size() > 1 ? std::optional(line[1]) : std::nullopt;
    } else if (line == "-" || line == "~") {
        if (const auto batch = batches_.find(sealedLast_); batch != batches_.end()) {
            batch->second.content = line == "-" ? std::nullopt : std::optional<std::string>("[{}]");
            batch->second.isWhole = false;
        }
    } else if (line.starts_with("e ") || line.starts_with("v ")) {
        addEvent(line[0] == 'v');
    } else if (auto entry = journal::decode(line)) {
        addEntry(*std::move(entry));
    } else if (!line.empty()) {
        frames_.back().content += std::string(line) + '\n';
        frames_.back().isEntries = false;
    }
}

void History::addEvent(bool isFromDevice) {
    const auto text = fmt::format("{{\"n\":{}}}", events_.size());
    events_.emplace(text, Event{frames_.size() - 1, isFromDevice, {}});
    put(journal::EventAccepted{text, isFromDevice});
}

void History::addEntry(Entry entry) {
    if (auto* const sealed = std::get_if<journal::BatchSealed>(&entry)) {
        if (!seal(sealed->batch, state_.openEvents())) {
            return;
        }
        for (const auto& event : state_.openEvents()) {
            events_.at(event.text).batch = sealed->batch.name;
        }
    } else if (auto* const part = std::get_if<journal::PartSealed>(&entry)) {
        const auto event = std::string(R"({"part":1})");
        if (!seal(part->batch, {{event, false}})) {
            return;
        }
        put(journal::PartEvent{event});
    } else if (const auto* const known = std::get_if<journal::BatchKnown>(&entry)) {
        if (!batches_.try_emplace(known->batch.name).second) {
            return;
        }
    } else if (const auto* const ended = std::get_if<journal::BatchEnded>(&entry)) {
        auto& batch = batches_[ended->name];
        batch.endedIn = batch.endedIn.value_or(frames_.size() - 1);
    } else if (std::holds_alternative<journal::PartEvent>(entry)) {
        return;
    }
    put(entry);
}

// Returns false, and does nothing, if the name was used before.
bool History::seal(SpooledBatch& batch, const std::vector<JournalState::OpenEvent>& events) {
    const auto body = JournalState::bodyOf(events);
    if (!batches_.try_emplace(batch.name, Batch{.frame = frames_.size() - 1, .content = body}).second) {
        return false;
    }
    batch.size = body.size();
    batch.digest = digestOf(body, cryptography());
    sealedLast_ = batch.name;
    return true;
}

void History::put(const Entry& entry) {
    journal::encode(entry, frames_.back().content);
    state_.apply(entry);
}

void History::endFrame() {
    if (frames_.back().content.empty()) {
        put(journal::BaselineSet{});
    }
    frames_.back().after = state_;
}

constexpr std::uint64_t kGeneration = 7;

std::string History::journal() const {
    auto text = journal::header(FileKind::journal, kGeneration, cryptography());
    for (std::size_t number = 0; number < frames_.size(); ++number) {
        const auto& [content, damage, isEntries, after] = frames_[number];
        auto frame = journal::frame(kGeneration, number, content, cryptography());
        if (damage == '<' && number + 1 == frames_.size()) {
            frame.resize(frame.size() / 2);
        } else if (damage) {
            // Not the line feed at the end, with which the next frame would be lost too.
            frame[static_cast<std::uint8_t>(*damage) * (frame.size() - 1) / 256] ^= 1;
        }
        text += frame;
    }
    return text;
}

void History::check(Position position) const {
    const auto journal = this->journal();
    std::optional<std::string> positionFile;
    if (position != Position::missing) {
        const auto generation = kGeneration - (position == Position::same ? 0 : 1);
        positionFile = journal::header(FileKind::position, generation, cryptography()) +
                       journal::frame(generation, 0, frames_[0].content, cryptography());
    }
    const auto contentOf = [this](const std::string& name) {
        const auto batch = batches_.find(name);
        return batch == batches_.end() || batch->second.endedIn ? std::nullopt : batch->second.content;
    };
    auto recovery = recover(journal, positionFile, contentOf, cryptography());
    testing::check(recovery.state);
    if (!frames_[0].isEntries || (frames_[0].damage && position != Position::same)) {
        require(!recovery.problems.empty(), "the log tells of a lost checkpoint");
        return;
    }
    const auto damaged = static_cast<std::size_t>(
        std::ranges::find_if(frames_.begin() + 1, frames_.end(), [](auto& frame) { return !frame.isWhole(); }) -
        frames_.begin());
    checkBeforeDamage(recovery, damaged);
    if (recovery.continuation) {
        const auto& [end, next] = *recovery.continuation;
        require(next == damaged && (damaged < frames_.size() || end == journal.size()),
                "the journal goes on at its end");
    }
    require(recovery.continuation || !recovery.problems.empty(), "the log tells why the journal is made anew");

    const auto open = JournalState::bodyOf(recovery.state.openEvents());
    auto found = open;
    for (const auto& [name, body] : recovery.state.takeBodies()) {
        const auto batch = recovery.state.batches().find(name);
        require(batch != recovery.state.batches().end() && digestOf(body, cryptography()) == batch->second.digest,
                "a batch from the journal is whole", body);
        found += body;
    }
    for (const auto& [name, batch] : batches_) {
        const bool hasEnded = recovery.state.ended().contains(name);
        found += hasEnded ? "" : contentOf(name).value_or("");
        require(hasEnded || !contentOf(name) || !isReadable(batch.frame) || recovery.state.batches().contains(name),
                "an altered file is not taken for one that the journal does not know", name);
    }
    for (const auto& [text, event] : events_) {
        require(!mustBeThere(event, damaged) || found.find(text) != std::string::npos, "no event is lost", text);
        const auto batch = batches_.find(event.batch);
        require(batch == batches_.end() || !batch->second.endedIn || !isReadable(batch->second.frame) ||
                    !isReadable(*batch->second.endedIn) || open.find(text) == std::string::npos,
                "an event of a confirmed batch is not sent again", text);
    }
}

// The frames before the first damaged one hold, and reading begins again behind them.
void History::checkBeforeDamage(const JournalRecovery& recovery, std::size_t damaged) const {
    auto expected = frames_[damaged - 1].after;
    require(recovery.state.positions() == expected.positions(), "reading begins again before the damage");
    if (std::none_of(frames_.begin() + static_cast<std::ptrdiff_t>(damaged), frames_.end(),
                     [](auto& frame) { return frame.isWhole(); })) {
        auto state = recovery.state;
        require(textOf(state) == textOf(expected), "what was written is read", textOf(expected));
        require(state.takeBodies() == expected.takeBodies(), "the batches are those that were written");
    }
}

// Events of trails behind the damage are read again.
bool History::mustBeThere(const Event& event, std::size_t damaged) const {
    if (!isReadable(event.frame)) {
        return false;
    }
    const auto batch = batches_.find(event.batch);
    if (batch != batches_.end()) {
        // The server has the batch; or nothing is left that tells of the batch.
        if (batch->second.endedIn || (!batch->second.isWhole && !isReadable(batch->second.frame))) {
            return false;
        }
    }
    return event.isFromDevice || event.frame < damaged;
}

}  // namespace

void fuzz(std::span<const std::uint8_t> input) {
    if (input.empty()) {
        return;
    }
    const auto how = input[0];
    const auto text = asText(input.subspan(1));
    if (how % 2 != 0) {
        History(text).check(History::Position{how / 2 % 3});
        return;
    }
    const auto files = parts(text, '\x1E', 3);
    const auto file = [&files](std::size_t number) {
        return number < files.size() ? std::optional(std::string(files[number])) : std::nullopt;
    };
    check(recover(file(0), file(1), [&](auto& /*name*/) { return file(2); }, cryptography()).state);
}

}  // namespace sentrova::testing
