// Audit records of the current activity on a Mac, one after another.

#pragma once

#include "volume/TrailRecord.h"

#include <chrono>
#include <cstdint>
#include <random>

namespace sentrova::testing {

// The users are those of WorkingDay. Most records have types that are collected; the rest is noise.
class LiveActivity {
  public:
    explicit LiveActivity(std::uint32_t seed) : random_(seed) {}

    // A record with the given time. Each record has its own process id, counted from 10000.
    TrailRecord next(std::chrono::seconds sinceEpoch);

  private:
    std::mt19937 random_;
    std::uint32_t process_ = 10000;
};

}  // namespace sentrova::testing
