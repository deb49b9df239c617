// What the durable spool's files say: the state after all entries of the journal.

#pragma once

#include "forwarding/JournalEntry.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace sentrova {

// Not thread-safe.
class JournalState {
  public:
    struct DeviceRecord {
        std::int64_t count = 0;
        // Seconds since 1970.
        std::uint64_t time = 0;
    };
    struct OpenEvent {
        std::string text;
        bool isFromDevice = false;
    };
    // The most device records that are remembered; the oldest ones are dropped.
    static constexpr std::size_t kMostDeviceRecords = 4096;

    // If memory runs out, the entry is as before, and the same call can be made again.
    void apply(journal::Entry&& entry);
    void apply(const journal::Entry& entry) { apply(journal::Entry(entry)); }

    // The entries that make this state from an empty one.
    std::vector<journal::Entry> entries() const;

    // The content of the file that the events become: a JSON array.
    static std::string bodyOf(const std::vector<OpenEvent>& events);

    const std::map<TrailIdentity, TrailPosition>& positions() const { return positions_; }
    const std::vector<OpenEvent>& openEvents() const { return openEvents_; }
    // The positions before the open batch's first event of each trail.
    const std::vector<TrailPosition>& openFrom() const { return openFrom_; }
    const std::map<std::string, SpooledBatch>& batches() const { return batches_; }
    const std::map<std::string, DeviceRecord>& deviceRecords() const { return deviceRecords_; }
    const std::optional<std::uint64_t>& baseline() const { return baseline_; }
    // The batches that ended, by name, until dropEnded: the name under which the file is kept, or empty if it is
    // deleted. A kill may have come before that.
    const std::map<std::string, std::string>& ended() const { return ended_; }

    void dropEnded(const std::set<std::string>& names);

    // The content of the batches that were sealed by an entry, until takeBodies. Their files may be missing.
    std::map<std::string, std::string> takeBodies();

  private:
    void applyOne(journal::EventAccepted& entry);
    void applyOne(const journal::PositionMoved& entry);
    void applyOne(const journal::TrailForgotten& entry);
    void applyOne(const journal::TrailJoined& entry);
    void applyOne(const journal::DeviceRecordCounted& entry);
    void applyOne(journal::BatchSealed& entry);
    void applyOne(const journal::BatchKnown& entry);
    void applyOne(const journal::KeyGiven& entry);
    void applyOne(const journal::BatchRefused& entry);
    void applyOne(const journal::BatchEnded& entry);
    void applyOne(const journal::PartEvent& entry);
    void applyOne(const journal::PartSealed& entry);
    void applyOne(const journal::BaselineSet& entry);

    std::map<TrailIdentity, TrailPosition> positions_;
    std::vector<OpenEvent> openEvents_;
    std::vector<TrailPosition> openFrom_;
    std::vector<OpenEvent> partEvents_;
    std::map<std::string, SpooledBatch> batches_;
    std::map<std::string, DeviceRecord> deviceRecords_;
    std::optional<std::uint64_t> baseline_;
    std::map<std::string, std::string> bodies_;
    std::map<std::string, std::string> ended_;
};

}  // namespace sentrova
