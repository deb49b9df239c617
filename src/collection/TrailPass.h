// One pass over all trails: reads each from its position to the end of its data.

#pragma once

#include "collection/EventSelection.h"
#include "collection/RecentRecords.h"
#include "collection/TrailFile.h"
#include "collection/TrailFolder.h"
#include "collection/bsm/RecordReader.h"
#include "core/GlobalVariables.h"
#include "core/Statistics.h"
#include "forwarding/DurableSpool.h"
#include "forwarding/TrailPosition.h"
#include "foundation/files/FileSystem.h"
#include "foundation/value/Cryptography.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace sentrova {

// What a pass knows from earlier passes of the process.
struct TrailMemory {
    struct Seen {
        Trail trail;
        // Absent while the trail has no whole record.
        std::optional<TrailIdentity> identity;
        // The trail was read up to here: its end, or data that cannot be read. It is not opened until it or its
        // position changes.
        std::optional<std::uint64_t> settledAt;
        // The faults of the trail that were logged since it was last read to its end. Each is logged once.
        std::set<std::string> told;
    };
    // By the file's volume and number.
    std::map<std::pair<std::uint64_t, std::uint64_t>, Seen> seen;
    // The fault of the folder that was logged last.
    std::string told;
};

// Not thread-safe. An object makes one pass.
class TrailPass {
  public:
    struct Surroundings {
        DurableSpool& spool;
        GlobalVariables& configuration;
        FileSystem& files;
        const Cryptography& cryptography;
        TrailMemory& memory;
        // Gets the selected records that were not matched with one of the device.
        RecentRecords& recent;
        Statistics& statistics;
    };

    TrailPass(const Surroundings& surroundings, DurableSpool::Cancelled isCancelled);

    // Returns false if the pass ended early: it was cancelled, the agent is disabled, or the spool has reached its size
    // limit. A trail that cannot be read is logged and left to the next pass.
    bool run();

  private:
    using Seen = TrailMemory::Seen;

    // The reading of one trail.
    struct Reading {
        const Trail& trail;
        TrailFile& file;
        Seen& seen;
        // Behind the newest record, and as it was last accepted.
        TrailPosition position;
        TrailPosition accepted;
        std::uint64_t records = 0;
        // The events accepted.
        std::uint64_t collected = 0;
        // The records behind the accepted position.
        std::uint64_t unaccepted = 0;
    };

    bool mayRead() const;
    std::optional<std::vector<Trail>> list();
    void setBaseline(const std::vector<Trail>& trails, std::uint64_t since, bool isLastAttempt);
    void forgetRemoved(const std::vector<Trail>& trails);
    void forgetRemoved(const TrailPosition& position);

    // Both return false if the pass ends early.
    bool readTrail(const Trail& trail, const std::vector<Trail>& trails);
    bool readRecords(Reading& reading);

    std::unique_ptr<TrailFile> open(const Trail& trail, Seen& seen);
    bool identify(const Trail& trail, TrailFile& file, Seen& seen);
    std::optional<TrailPosition> positionOf(const Trail& trail, const TrailIdentity& identity,
                                            const std::vector<Trail>& trails);
    bool checkPosition(Reading& reading);
    bool isSettled(const Trail& trail, const Seen& seen) const;
    bool accept(std::vector<Dictionary> events, Reading& reading);
    bool finish(Reading& reading, const bsm::RecordReader& reader, std::uint64_t end);
    void logEnd(const Trail& trail, const TrailFile& file, Seen& seen, const bsm::RecordReader& reader,
                std::uint64_t end);
    static void tellOnce(Seen& seen, const std::string& text);
    std::string digestOf(std::span<const std::uint8_t> bytes) const;

    const Surroundings with_;
    const DurableSpool::Cancelled isCancelled_;
    const EventSelection selection_;
    TrailFolder folder_;
    std::vector<TrailPosition> known_;
    // A trail was renamed or removed after it was listed.
    bool hasVanished_ = false;
};

}  // namespace sentrova
