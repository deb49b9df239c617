// Reads audit records, one after another, from a byte source in large blocks.
//
// For one thread. A record is a view into the block and costs neither a copy nor an allocation. The source is hostile:
// records above 16 MiB are skipped, memory grows with the bytes that arrived and not with the length that a record
// claims, and bytes that cannot be a record end the reading.

#pragma once

#include "collection/bsm/ByteSource.h"
#include "collection/bsm/MappedAllocator.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace sentrova::bsm {

class RecordReader {
  public:
    static constexpr std::size_t kMaximumRecordLength = 16 * 1024 * 1024;

    enum class End {
        kNotYet,
        // The source ended where a record ends.
        kEndOfData,
        // The source ended within a record.
        kTruncatedRecord,
        // What follows the last record does not begin like a record.
        kGarbage,
        kReadError,
    };

    // The source must outlive the reader.
    explicit RecordReader(ByteSource& source) : source_(source) {}

    // Reads the next record and returns its length. Returns -1 when there is none; end() then says why, and so it
    // stays. Returns 0 for a record above the maximum: position() and skippedLength() tell where it begins and how long
    // it is, and the next call skips it. Asks the source for bytes only when those at hand hold no whole record.
    //
    // A record is what a header and the length inside it span, whether or not its tokens make sense; or a file token,
    // which stands between records to name the trail's file.
    std::ptrdiff_t au_read_rec();

    // The record that was read last; valid until the next call of au_read_rec.
    std::span<const std::uint8_t> record() const { return record_; }

    End end() const { return end_; }

    // The length of the record that is being skipped; 0 while there is none.
    std::uint64_t skippedLength() const { return skippedLength_; }

    // How many of the source's bytes belong to records that were read or skipped as a whole: the place in a file where
    // the unread part begins.
    std::uint64_t position() const { return position_; }

    // How many bytes behind that place were taken from the source. There may be more behind them.
    std::uint64_t leftUnread() const { return skipped_ + (filled_ - next_); }

  private:
    bool skipRecord();
    bool fill(std::size_t recordLength);
    std::ptrdiff_t finish(End end);

    ByteSource& source_;
    std::vector<std::uint8_t, MappedAllocator<std::uint8_t>> block_;
    // The block's bytes from next_ to filled_ are still to be read.
    std::size_t next_ = 0;
    std::size_t filled_ = 0;
    std::span<const std::uint8_t> record_;
    std::uint64_t position_ = 0;
    std::uint64_t skippedLength_ = 0;
    // How much of it has been skipped.
    std::uint64_t skipped_ = 0;
    End end_ = End::kNotYet;
};

}  // namespace sentrova::bsm
