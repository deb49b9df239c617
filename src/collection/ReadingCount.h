// Reports to the statistics what one reader of audit records has read.

#pragma once

#include "core/Statistics.h"

#include <algorithm>
#include <cstdint>
#include <optional>

namespace sentrova {

// Reports in portions, because a reader of trails reads millions of records a second. Not thread-safe: the reader uses
// it on its thread.
class ReadingCount {
  public:
    // Reports after each `portion` records. The statistics must outlive the object.
    ReadingCount(Statistics& statistics, std::uint64_t portion) : statistics_(statistics), portion_(portion) {}
    ~ReadingCount() { publish(); }
    ReadingCount(const ReadingCount&) = delete;
    ReadingCount& operator=(const ReadingCount&) = delete;

    // For a reader of trails, and for a reader of the live device, whose records are rare.
    static constexpr std::uint64_t kTrail = 256;
    static constexpr std::uint64_t kDevice = 1;

    // A record of that time (whole seconds since 1970) was read.
    void noteTime(std::uint64_t seconds) { newest_ = std::max(newest_, seconds); }
    // The totals of the reader so far.
    void update(const Statistics::Reading& totals) {
        totals_ = totals;
        if (totals_.records - published_.records >= portion_) {
            publish();
        }
    }
    void publish() {
        if (totals_ == published_) {
            return;
        }
        statistics_.addReading({.records = totals_.records - published_.records,
                                .collected = totals_.collected - published_.collected,
                                .excluded = totals_.excluded - published_.excluded},
                               newest_ > 0 ? std::optional(static_cast<Statistics::Seconds>(newest_)) : std::nullopt);
        published_ = totals_;
    }

  private:
    Statistics& statistics_;
    const std::uint64_t portion_;
    Statistics::Reading totals_;
    Statistics::Reading published_;
    std::uint64_t newest_ = 0;
};

}  // namespace sentrova
