// What a Mac's people do just now, one audit record after another.

#pragma once

#include "volume/TrailRecord.h"

#include <chrono>
#include <cstdint>
#include <random>

namespace sentrova::testing {

// The people are those of a WorkingDay. Most records are of the kinds that are collected, the rest is noise.
class LiveActivity {
  public:
    explicit LiveActivity(std::uint32_t seed) : random_(seed) {}

    // A record of the given time. Each has a process number of its own, counted up from 10000.
    TrailRecord next(std::chrono::seconds sinceEpoch);

  private:
    std::mt19937 random_;
    std::uint32_t process_ = 10000;
};

}  // namespace sentrova::testing
