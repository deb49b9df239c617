// The changes that the durable spool writes to its journal: one line each. docs/formats.md describes the lines.

#pragma once

#include "forwarding/TrailPosition.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace sentrova {

// A batch of events in a file `event_...` of its own.
// NOLINTBEGIN(readability-redundant-member-init): callers may leave out members that have an initializer
struct SpooledBatch {
    // The file's name.
    std::string name;
    std::uint64_t events = 0;
    // The file's length in bytes, and the digest of its content.
    std::uint64_t size = 0;
    std::string digest = {};
    // The name of the batch for the server; empty until the batch is first sent.
    std::string key = {};
    // How often the server refused this batch for its own sake, when it did so first (seconds since 1970), and with
    // which status it did so last.
    std::uint64_t refusals = 0;
    std::int64_t firstRefused = 0;
    std::int64_t status = 0;
    // The positions of the trails before the first event of the batch: where reading begins again if the batch is lost.
    std::vector<TrailPosition> from = {};

    friend bool operator==(const SpooledBatch&, const SpooledBatch&) = default;
};
// NOLINTEND(readability-redundant-member-init)

namespace journal {

// An event of the open batch, as compact JSON.
struct EventAccepted {
    std::string text;
    // Nobody but the journal has the event: the record cannot be read from a trail.
    bool isFromDevice = false;
};
struct PositionMoved {
    TrailPosition position;
};
struct TrailForgotten {
    TrailIdentity trail;
};
// The open batch got its first event of a trail; the position before it.
struct TrailJoined {
    TrailPosition before;
};
// The device brought a record (count 1), or a trail brought a record that the device had brought before (count -1).
struct DeviceRecordCounted {
    std::string digest;
    std::int64_t count = 0;
    // Seconds since 1970.
    std::uint64_t time = 0;
};
// The open batch became a file. `batch.from` is not written; it follows from TrailJoined.
struct BatchSealed {
    SpooledBatch batch;
    // The file's content; not written, as it follows from the events.
    std::string body;
};
// A batch whose events are in its file alone: at a checkpoint, or found in the folder.
struct BatchKnown {
    SpooledBatch batch;
};
struct KeyGiven {
    std::string name;
    std::string key;
};
struct BatchRefused {
    std::string name;
    std::uint64_t refusals = 0;
    std::int64_t firstRefused = 0;
    std::int64_t status = 0;
};
// The batch left the spool: the server has confirmed it, or its file is kept under another name.
struct BatchEnded {
    std::string name;
    // Empty: the file is deleted.
    std::string keptAs;
};
// An event of a batch that is being split, and the part that the events since the last part become.
struct PartEvent {
    std::string text;
};
struct PartSealed {
    SpooledBatch batch;
    // The batch that is split; not written.
    std::string whole;
};
// The mode was switched on, or a replay without the mode reads once more from a journal: until the present trails have
// positions, records before this time count as reported. Absent: the trails have their positions.
struct BaselineSet {
    std::optional<std::uint64_t> time;
};

using Entry = std::variant<EventAccepted, PositionMoved, TrailForgotten, TrailJoined, DeviceRecordCounted, BatchSealed,
                           BatchKnown, KeyGiven, BatchRefused, BatchEnded, PartEvent, PartSealed, BaselineSet>;

// Appends the entry's line, with its line feed.
void encode(const Entry& entry, std::string& text);
// The entry of a line without its line feed; nothing if the line is not an entry.
std::optional<Entry> decode(std::string_view line);

}  // namespace journal

}  // namespace sentrova
