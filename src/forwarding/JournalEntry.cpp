#include "forwarding/JournalEntry.h"

#include "foundation/formats/Json.h"

#include <stdexcept>
#include <utility>

namespace sentrova::journal {

namespace {

// The letter at the beginning of a line.
enum class Tag : char {
    event = 'e',
    deviceEvent = 'v',
    position = 'p',
    forgotten = 'g',
    joined = 'o',
    deviceRecord = 'd',
    sealed = 's',
    known = 'b',
    key = 'k',
    refused = 'r',
    ended = 'c',
    partEvent = 'h',
    partSealed = 't',
    baseline = 'n',
};

// A missing or wrong member. Leaves decode as "no entry".
class NoEntry : public std::runtime_error {
  public:
    using runtime_error::runtime_error;
};

std::uint64_t number(const Dictionary& from, std::string_view key) {
    const auto* const value = from[key].integer();
    if (!value || *value < 0) {
        throw NoEntry("no number");
    }
    return static_cast<std::uint64_t>(*value);
}

std::string text(const Dictionary& from, std::string_view key) {
    const auto* const value = from[key].string();
    if (!value) {
        throw NoEntry("no text");
    }
    return *value;
}

// A name in the spool's folder, never a path.
std::string name(const Dictionary& from, std::string_view key = "name") {
    auto name = text(from, key);
    if (name.empty() || name.starts_with('.') || name.find_first_of(std::string_view("/\0", 2)) != std::string::npos) {
        throw NoEntry("no name of a batch");
    }
    return name;
}

Dictionary dictionaryOf(const TrailIdentity& trail) {
    // Both numbers may use all 64 bits; JSON's integers here are signed.
    return {
        {"device", std::to_string(trail.device)}, {"inode", std::to_string(trail.inode)}, {"first", trail.firstRecord}};
}

std::uint64_t wholeNumber(const Dictionary& from, std::string_view key) {
    const auto digits = text(from, key);
    std::uint64_t value = 0;
    for (const char digit : digits) {
        std::uint64_t tenfold = 0;
        if (digit < '0' || digit > '9' || __builtin_mul_overflow(value, std::uint64_t{10}, &tenfold) ||
            __builtin_add_overflow(tenfold, static_cast<std::uint64_t>(digit - '0'), &value)) {
            throw NoEntry("no whole number");
        }
    }
    return value;
}

TrailIdentity identityIn(const Dictionary& from) {
    return {
        .device = wholeNumber(from, "device"), .inode = wholeNumber(from, "inode"), .firstRecord = text(from, "first")};
}

Dictionary dictionaryOf(const TrailPosition& position) {
    auto dictionary = dictionaryOf(position.trail);
    dictionary.set("name", position.name);
    dictionary.set("offset", position.offset);
    dictionary.set("length", position.lastLength);
    dictionary.set("last", position.lastRecord);
    dictionary.set("time", position.time);
    dictionary.set("since", position.since);
    dictionary.set("size", position.size);
    dictionary.set("open", position.isOpen);
    return dictionary;
}

TrailPosition positionIn(const Dictionary& from) {
    TrailPosition position = {.trail = identityIn(from),
                              .name = text(from, "name"),
                              .offset = number(from, "offset"),
                              .lastLength = number(from, "length"),
                              .lastRecord = text(from, "last"),
                              .time = number(from, "time"),
                              .since = number(from, "since"),
                              .size = number(from, "size"),
                              .isOpen = from["open"].boolValue()};
    if (position.lastLength > position.offset) {
        throw NoEntry("a record before the beginning");
    }
    return position;
}

// `from` is left to the caller.
Dictionary dictionaryOf(const SpooledBatch& batch) {
    return {{"name", batch.name}, {"events", batch.events}, {"size", batch.size}, {"digest", batch.digest}};
}

SpooledBatch batchIn(const Dictionary& from) {
    return {.name = name(from),
            .events = number(from, "events"),
            .size = number(from, "size"),
            .digest = text(from, "digest")};
}

Dictionary wholeDictionaryOf(const SpooledBatch& batch) {
    auto dictionary = dictionaryOf(batch);
    dictionary.set("key", batch.key);
    dictionary.set("refusals", batch.refusals);
    dictionary.set("first", batch.firstRefused);
    dictionary.set("status", batch.status);
    Array from;
    for (const auto& position : batch.from) {
        from.emplace_back(dictionaryOf(position));
    }
    dictionary.set("from", std::move(from));
    return dictionary;
}

SpooledBatch wholeBatchIn(const Dictionary& from) {
    auto batch = batchIn(from);
    batch.key = text(from, "key");
    batch.refusals = number(from, "refusals");
    batch.firstRefused = from["first"].integerValue();
    batch.status = from["status"].integerValue();
    const auto* const positions = from["from"].array();
    if (!positions) {
        throw NoEntry("no positions");
    }
    for (const auto& position : *positions) {
        if (!position.dictionary()) {
            throw NoEntry("no position");
        }
        batch.from.push_back(positionIn(*position.dictionary()));
    }
    return batch;
}

struct Line {
    Tag tag;
    std::string content;
};

Line line(Tag tag, Dictionary dictionary) {
    auto content = Json::write(Value(std::move(dictionary)));
    // A file name that is not UTF-8 is the one thing that JSON refuses here.
    if (!content) {
        throw std::invalid_argument("an entry of the journal cannot be written: " + content.error().description);
    }
    return {tag, *std::move(content)};
}

struct Encoder {
    Line operator()(const EventAccepted& entry) const {
        return {entry.isFromDevice ? Tag::deviceEvent : Tag::event, entry.text};
    }
    Line operator()(const PositionMoved& entry) const { return line(Tag::position, dictionaryOf(entry.position)); }
    Line operator()(const TrailForgotten& entry) const { return line(Tag::forgotten, dictionaryOf(entry.trail)); }
    Line operator()(const TrailJoined& entry) const { return line(Tag::joined, dictionaryOf(entry.before)); }
    Line operator()(const DeviceRecordCounted& entry) const {
        return line(Tag::deviceRecord, {{"digest", entry.digest}, {"count", entry.count}, {"time", entry.time}});
    }
    Line operator()(const BatchSealed& entry) const { return line(Tag::sealed, dictionaryOf(entry.batch)); }
    Line operator()(const BatchKnown& entry) const { return line(Tag::known, wholeDictionaryOf(entry.batch)); }
    Line operator()(const KeyGiven& entry) const { return line(Tag::key, {{"name", entry.name}, {"key", entry.key}}); }
    Line operator()(const BatchRefused& entry) const {
        return line(Tag::refused, {{"name", entry.name},
                                   {"refusals", entry.refusals},
                                   {"first", entry.firstRefused},
                                   {"status", entry.status}});
    }
    Line operator()(const BatchEnded& entry) const {
        Dictionary dictionary = {{"name", entry.name}};
        if (!entry.keptAs.empty()) {
            dictionary.set("kept", entry.keptAs);
        }
        return line(Tag::ended, std::move(dictionary));
    }
    Line operator()(const PartEvent& entry) const { return {Tag::partEvent, entry.text}; }
    Line operator()(const PartSealed& entry) const { return line(Tag::partSealed, wholeDictionaryOf(entry.batch)); }
    Line operator()(const BaselineSet& entry) const {
        return line(Tag::baseline, {{"time", entry.time ? Value(std::to_string(*entry.time)) : Value("")}});
    }
};

Entry entryOf(Tag tag, const Dictionary& content) {
    switch (tag) {
        case Tag::position:
            return PositionMoved{positionIn(content)};
        case Tag::forgotten:
            return TrailForgotten{identityIn(content)};
        case Tag::joined:
            return TrailJoined{positionIn(content)};
        case Tag::deviceRecord:
            return DeviceRecordCounted{text(content, "digest"), content["count"].integerValue(),
                                       number(content, "time")};
        case Tag::sealed:
            return BatchSealed{batchIn(content), {}};
        case Tag::known:
            return BatchKnown{wholeBatchIn(content)};
        case Tag::key:
            return KeyGiven{name(content), text(content, "key")};
        case Tag::refused:
            return BatchRefused{name(content), number(content, "refusals"), content["first"].integerValue(),
                                content["status"].integerValue()};
        case Tag::ended:
            return BatchEnded{name(content), content.contains("kept") ? name(content, "kept") : ""};
        case Tag::partSealed:
            return PartSealed{wholeBatchIn(content), {}};
        case Tag::baseline:
            return text(content, "time").empty() ? BaselineSet{} : BaselineSet{wholeNumber(content, "time")};
        default:
            throw NoEntry("an unknown kind of entry");
    }
}

}  // namespace

void encode(const Entry& entry, std::string& text) {
    const auto [tag, content] = std::visit(Encoder{}, entry);
    text += static_cast<char>(tag);
    text += ' ';
    text += content;
    text += '\n';
}

std::optional<Entry> decode(std::string_view line) {
    if (line.size() < 2 || line[1] != ' ') {
        return std::nullopt;
    }
    const auto tag = static_cast<Tag>(line[0]);
    const auto content = line.substr(2);
    // The text of an event is not parsed: its frame has a checksum.
    switch (tag) {
        case Tag::event:
        case Tag::deviceEvent:
            return EventAccepted{std::string(content), tag == Tag::deviceEvent};
        case Tag::partEvent:
            return PartEvent{std::string(content)};
        default:
            break;
    }
    const auto parsed = Json::parse(content, {content.size(), 8});
    if (!parsed || !parsed->dictionary()) {
        return std::nullopt;
    }
    try {
        return entryOf(tag, *parsed->dictionary());
    } catch (const NoEntry&) {
        return std::nullopt;
    }
}

}  // namespace sentrova::journal
