// Reads audit records one after another, in large blocks, from a byte source.
//
// Not thread-safe. A record is a view into the block and costs neither a copy nor an allocation. The source is
// untrusted: records above 16 MiB are skipped, memory grows with the bytes received and not with the length that a
// record claims, and bytes that cannot be a record end the reading.

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
        // The source ended at the end of a record.
        kEndOfData,
        // The source ended inside a record.
        kTruncatedRecord,
        // The bytes after the last record cannot be a record.
        kGarbage,
        kReadError,
    };

    // The source must outlive the reader.
    explicit RecordReader(ByteSource& source) : source_(source) {}

    // Reads the next record and returns its length. Returns -1 if there is none; end() says why, and later calls return
    // -1 too. Returns 0 for a record above the maximum: position() and skippedLength() give its offset and length, and
    // the next call skips it. Reads from the source only if the block has no whole record.
    //
    // A record is a header and the length that it states, even if its tokens make no sense; or a file token, which
    // stands between records and names the trail's file.
    std::ptrdiff_t au_read_rec();

    // The last record; valid until the next call of au_read_rec.
    std::span<const std::uint8_t> record() const { return record_; }

    End end() const { return end_; }

    // The length of the record being skipped; 0 if there is none.
    std::uint64_t skippedLength() const { return skippedLength_; }

    // The number of bytes in records that were read or skipped completely: the file offset where the unread part
    // begins.
    std::uint64_t position() const { return position_; }

    // The number of bytes after position() that were received from the source. The source may have more.
    std::uint64_t leftUnread() const { return skipped_ + (filled_ - next_); }

  private:
    bool skipRecord();
    bool fill(std::size_t recordLength);
    std::ptrdiff_t finish(End end);

    ByteSource& source_;
    std::vector<std::uint8_t, MappedAllocator<std::uint8_t>> block_;
    // The unread bytes of the block are those from next_ to filled_.
    std::size_t next_ = 0;
    std::size_t filled_ = 0;
    std::span<const std::uint8_t> record_;
    std::uint64_t position_ = 0;
    std::uint64_t skippedLength_ = 0;
    // How many bytes of that record have been skipped.
    std::uint64_t skipped_ = 0;
    End end_ = End::kNotYet;
};

}  // namespace sentrova::bsm
