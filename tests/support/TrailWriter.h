// Puts records together to the bytes of an audit trail.

#pragma once

#include "foundation/Value.h"
#include "support/TrailRecord.h"

#include <chrono>
#include <cstddef>
#include <span>
#include <string_view>

namespace sentrova::testing {

class TrailWriter {
  public:
    TrailWriter& add(const TrailRecord& record);
    // The token that names the trail's file, at a trail's beginning and end.
    TrailWriter& addFile(std::chrono::seconds sinceEpoch, std::string_view path);
    TrailWriter& addRaw(std::span<const std::uint8_t> bytes);

    const Data& bytes() const { return bytes_; }
    // File tokens count as records, as they do for a reader.
    std::size_t records() const { return records_; }
    // The time of the latest record.
    std::chrono::seconds lastTime() const { return lastTime_; }

  private:
    Data bytes_;
    std::size_t records_ = 0;
    std::chrono::seconds lastTime_{};
};

}  // namespace sentrova::testing
