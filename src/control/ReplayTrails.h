// The audit trails, as far as a replay needs them: which of their records are at or after a time.

#pragma once

#include "collection/TrailFolder.h"
#include "foundation/files/FileSystem.h"
#include "foundation/value/Cryptography.h"
#include "foundation/value/Result.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace sentrova::control {

struct ReplayTrail {
    Trail trail;
    // The digest of the first record. Empty if there is no record, or if the first one is too long to be read.
    std::string firstRecord;
    // The whole records at or after the time, and where the first of them begins, in bytes.
    std::uint64_t records = 0;
    std::uint64_t firstOffset = 0;
    // The records that a reader of the trail may admit without the durable mode: none is older than a record before it.
    // Their number by their second.
    std::map<std::uint64_t, std::uint64_t> admissible;
};

// A value.
class ReplayTrails {
  public:
    // Reads all trails of the volume, without the link `current`. `since` is in seconds since 1970. Fails if the folder
    // or a trail cannot be read. What follows garbage or a cut record does not count, because no agent reads it. `take`
    // gets each record in the agent's order, and may get records twice if a trail is renamed meanwhile.
    using Take = std::function<void(std::span<const std::uint8_t> record)>;
    static Result<ReplayTrails> read(
        FileSystem& files, const Cryptography& cryptography, std::uint64_t since,
        const Take& take = [](std::span<const std::uint8_t>) {});

    std::uint64_t since() const { return since_; }
    // In the order in which the agent reads them.
    const std::vector<ReplayTrail>& all() const { return trails_; }
    // The number of trails with a record at or after the time, and the number of these records.
    std::uint64_t trails() const;
    std::uint64_t records() const;

    // The stored time with which an agent without the durable mode reports the same records at or after the time as an
    // agent that reads from the beginning, and no older ones. Nothing if no time does: each opened trail moves the time
    // on by one second, also a trail in which nothing is new.
    std::optional<std::uint64_t> storedTime() const;

  private:
    struct Admitted {
        std::uint64_t older = 0;
        std::uint64_t wanted = 0;
    };
    Admitted admittedFrom(std::uint64_t storedTime) const;

    std::uint64_t since_ = 0;
    std::vector<ReplayTrail> trails_;
};

}  // namespace sentrova::control
