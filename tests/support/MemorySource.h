// A byte source over bytes in memory. It returns them in portions of given sizes, as a pipe does.

#pragma once

#include "collection/bsm/ByteSource.h"
#include "foundation/value/Value.h"

#include <algorithm>
#include <limits>

namespace sentrova::testing {

class MemorySource final : public bsm::ByteSource {
  public:
    // `portions` are the sizes of the first reads; the last size applies to all further reads. Without sizes, each read
    // returns as much as it asks for.
    explicit MemorySource(Data bytes, std::vector<std::size_t> portions = {})
        : bytes_(std::move(bytes)), portions_(std::move(portions)) {}

    std::ptrdiff_t read(std::span<std::uint8_t> into) override {
        const auto limit = portions_.empty() ? std::numeric_limits<std::size_t>::max()
                                             : portions_[std::min(reads_, portions_.size() - 1)];
        ++reads_;
        room_ = into.size();
        const auto count = std::min({into.size(), bytes_.size() - position_, limit});
        if (count == 0 && fails_) {
            return -1;
        }
        std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(position_), count, into.begin());
        position_ += count;
        return static_cast<std::ptrdiff_t>(count);
    }

    // From now on, the end of the bytes is an error.
    void failAtEnd() { fails_ = true; }

    std::size_t reads() const { return reads_; }
    // The size of the buffer of the latest read, in bytes.
    std::size_t room() const { return room_; }

  private:
    Data bytes_;
    std::vector<std::size_t> portions_;
    std::size_t position_ = 0;
    std::size_t reads_ = 0;
    std::size_t room_ = 0;
    bool fails_ = false;
};

}  // namespace sentrova::testing
