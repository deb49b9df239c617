// Audit records: the decoder on a source that gives the bytes in portions, and a whole trail file through the
// collector. Input: two bytes for the portions, then the trail.

#include "collection/EventCollector.h"
#include "collection/bsm/TokenReader.h"
#include "forwarding/EventQueueGCD.h"
#include "foundation/formats/Json.h"
#include "fuzz/Fuzz.h"
#include "fuzz/FuzzAgent.h"
#include "support/MemorySource.h"

namespace sentrova::testing {

namespace {

struct Decoded {
    std::vector<Data> records;
    bsm::RecordReader::End end{};
    std::size_t tokens = 0;
    std::size_t trailers = 0;

    friend bool operator==(const Decoded&, const Decoded&) = default;
};

void requireWithin(std::span<const std::uint8_t> record, std::span<const std::uint8_t> view) {
    require(view.empty() || (view.data() >= record.data() && &view.back() <= &record.back()), "views stay inside");
}

void decodeTokens(std::span<const std::uint8_t> record, Decoded& decoded) {
    bsm::TokenReader reader(record);
    for (auto left = reader.left(); left > 0 && reader.au_fetch_tok() == 0; left = reader.left()) {
        require(reader.left() < left, "every token takes some of the record");
        ++decoded.tokens;
        const auto& content = reader.token().content;
        decoded.trailers += std::holds_alternative<bsm::TrailerToken>(content) ? 1U : 0U;
        if (const auto* text = std::get_if<bsm::TextToken>(&content)) {
            requireWithin(record, asBytes(text->text));
        } else if (const auto* identity = std::get_if<bsm::IdentityToken>(&content)) {
            requireWithin(record, asBytes(identity->signingId));
            requireWithin(record, asBytes(identity->teamId));
            requireWithin(record, identity->cdhash);
        }
    }
}

Decoded decode(const Data& trail, const std::vector<std::size_t>& portions) {
    MemorySource source(trail, portions);
    bsm::RecordReader reader(source);
    Decoded decoded;
    std::uint64_t position = 0;
    for (auto length = reader.au_read_rec(); length >= 0; length = reader.au_read_rec()) {
        const auto record = reader.record();
        if (length == 0) {
            require(reader.skippedLength() > bsm::RecordReader::kMaximumRecordLength, "only a long record is skipped");
            continue;
        }
        require(std::ssize(record) == length, "a record has its length");
        require(std::ranges::equal(record, std::span(trail).subspan(position, record.size())), "records are in order");
        position += record.size();
        require(reader.position() == position, "the position is the sum of the records");
        decoded.records.emplace_back(record.begin(), record.end());
        decodeTokens(record, decoded);
    }
    decoded.end = reader.end();
    require((decoded.end == bsm::RecordReader::End::kEndOfData) == (position == trail.size()), "the end is told");
    return decoded;
}

// The events, in order, of an agent start that reads the trail.
std::size_t collect(FuzzAgent& agent, std::size_t most) {
    EventCollector("/var/audit/trail", std::nullopt).start();
    std::vector<Data> batches;
    for (const auto& [name, content] : agent.files().files(agent.path("eventData"))) {
        batches.push_back(content);
    }
    if (const auto rest = EventQueueGCD::dequeue(std::nullopt)) {
        batches.emplace_back(rest->begin(), rest->end());
    }
    std::size_t events = 0;
    std::uint64_t last = 0;
    for (const auto& batch : batches) {
        const auto parsed = Json::parse(asText(batch));
        require(parsed && parsed->array(), "a batch is a JSON array", asText(batch));
        for (const auto& event : *parsed->array()) {
            const auto time = static_cast<std::uint64_t>((*event.dictionary())["record_time"].integerValue());
            require(time >= last, "no event is older than the one before it", asText(batch));
            last = time;
            ++events;
        }
    }
    require(events <= most, "no event without its record");
    require(EventCollector::LastTimeStamp() >= last, "the time moves on");
    return events;
}

}  // namespace

void fuzz(std::span<const std::uint8_t> input) {
    if (input.size() < 2) {
        return;
    }
    const Data trail(input.begin() + 2, input.end());
    const auto whole = decode(trail, {});
    require(whole == decode(trail, {input[0] + 1U, input[1] * 8 + 1U}),
            "records do not depend on how the bytes arrive");

    if (whole.trailers == 0) {
        return;
    }

    auto& agent = FuzzAgent::fresh();
    const auto path = (agent.volume().auditFolder() / "trail").string();
    agent.files().put(path, trail);
    agent.clock().advance(std::chrono::seconds(1));
    collect(agent, whole.trailers);
    const auto newest = EventCollector::LastTimeStamp();
    const auto stored = agent.configuration("myconfigurations.plist")["TimestampOfLastEvent"].integerValue();
    constexpr auto kLatest = std::uint64_t{1} << 62;
    require(newest > kLatest || static_cast<std::uint64_t>(stored) == newest || stored == 0, "the time is stored");
    agent.restart();
    if (stored > 0 && newest < kLatest) {
        for (const auto& [name, content] : agent.files().files(agent.path("eventData"))) {
            static_cast<void>(agent.files().remove(agent.path("eventData/") + name));
        }
        require(collect(agent, whole.trailers) == 0, "nothing is collected twice");
    }
}

}  // namespace sentrova::testing
