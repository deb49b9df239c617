#include "support/TrailWriter.h"

#include "support/BigEndian.h"

#include <algorithm>

namespace sentrova::testing {

TrailWriter& TrailWriter::add(const TrailRecord& record) {
    lastTime_ = std::max(lastTime_, record.time());
    ++records_;
    return addRaw(record.bytes());
}

TrailWriter& TrailWriter::addFile(std::chrono::seconds sinceEpoch, std::string_view path) {
    lastTime_ = std::max(lastTime_, sinceEpoch);
    ++records_;
    append8(bytes_, 0x11);
    append32(bytes_, static_cast<std::uint32_t>(sinceEpoch.count()));
    append32(bytes_, 0);
    append16(bytes_, static_cast<std::uint16_t>(path.size() + 1));
    appendText(bytes_, path);
    append8(bytes_, 0);
    return *this;
}

TrailWriter& TrailWriter::addRaw(std::span<const std::uint8_t> bytes) {
    appendBytes(bytes_, bytes);
    return *this;
}

}  // namespace sentrova::testing
