// Joins records to the bytes of an audit trail.

#pragma once

#include "volume/TrailRecord.h"

#include <algorithm>
#include <cstddef>

namespace sentrova::testing {

class TrailWriter {
  public:
    TrailWriter& add(const TrailRecord& record) {
        lastTime_ = std::max(lastTime_, record.time());
        ++records_;
        return addRaw(record.bytes());
    }
    // The file token, which names the trail's file at its beginning and end.
    TrailWriter& addFile(std::chrono::seconds sinceEpoch, std::string_view path) {
        lastTime_ = std::max(lastTime_, sinceEpoch);
        ++records_;
        trail_.put(std::uint8_t{0x11});
        trail_.put(static_cast<std::uint32_t>(sinceEpoch.count()));
        trail_.put(std::uint32_t{0});
        trail_.putCounted(path);
        return *this;
    }
    TrailWriter& addRaw(std::span<const std::uint8_t> bytes) {
        trail_.put(bytes);
        return *this;
    }

    const Data& bytes() const { return trail_.bytes; }
    // Counts file tokens as records, as a reader does.
    std::size_t records() const { return records_; }
    // The time of the latest record.
    std::chrono::seconds lastTime() const { return lastTime_; }

  private:
    TrailBytes trail_;
    std::size_t records_ = 0;
    std::chrono::seconds lastTime_{};
};

}  // namespace sentrova::testing
