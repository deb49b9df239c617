#include "collection/bsm/RecordReader.h"

#include "collection/bsm/ByteCursor.h"
#include "collection/bsm/Token.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace sentrova::bsm {

namespace {

constexpr std::size_t kBlockLength = 256 * 1024;

// The id and the length that follows it. No record is shorter.
constexpr std::size_t kRecordStart = 5;

// The id, seconds, milliseconds, and the length of the name.
constexpr std::size_t kFileTokenStart = 11;

// The length of the record that begins with the bytes. If they are too few to tell, the number of bytes needed to tell.
// Nothing if no record begins like that.
std::optional<std::size_t> recordLength(std::span<const std::uint8_t> bytes) {
    if (bytes.empty()) {
        return kRecordStart;
    }
    ByteCursor in(bytes);
    switch (static_cast<TokenId>(in.u8())) {
        case TokenId::kHeader32:
        case TokenId::kHeader32Ex:
        case TokenId::kHeader64:
        case TokenId::kHeader64Ex: {
            if (bytes.size() < kRecordStart) {
                return kRecordStart;
            }
            const std::size_t length = in.u32();
            return length < kRecordStart ? std::nullopt : std::optional(length);
        }
        case TokenId::kOtherFile32:
            if (bytes.size() < kFileTokenStart) {
                return kFileTokenStart;
            }
            in.take(8);
            return kFileTokenStart + in.u16();
        default:
            return std::nullopt;
    }
}

}  // namespace

std::ptrdiff_t RecordReader::au_read_rec() {
    record_ = {};
    if (end_ != End::kNotYet || (skippedLength_ > 0 && !skipRecord())) {
        return -1;
    }
    for (;;) {
        const auto bytes = std::span<const std::uint8_t>(block_).subspan(next_, filled_ - next_);
        const auto length = recordLength(bytes);
        if (!length) {
            return finish(End::kGarbage);
        }
        if (*length > kMaximumRecordLength) {
            skippedLength_ = *length;
            return 0;
        }
        if (*length <= bytes.size()) {
            record_ = bytes.first(*length);
            next_ += *length;
            position_ += *length;
            return static_cast<std::ptrdiff_t>(*length);
        }
        if (!fill(*length)) {
            return -1;
        }
    }
}

// Reads the rest of the record without storing it. Returns false at the end.
bool RecordReader::skipRecord() {
    for (;;) {
        const auto count = std::min<std::uint64_t>(skippedLength_ - skipped_, filled_ - next_);
        next_ += count;
        skipped_ += count;
        if (skipped_ == skippedLength_) {
            position_ += std::exchange(skippedLength_, 0);
            skipped_ = 0;
            return true;
        }
        if (!fill(kRecordStart)) {
            return false;
        }
    }
}

// Reads more bytes behind those in the block, which are fewer than `recordLength`. Returns false at the end.
bool RecordReader::fill(std::size_t recordLength) {
    if (next_ > 0) {
        const auto begin = block_.begin();
        std::copy(begin + static_cast<std::ptrdiff_t>(next_), begin + static_cast<std::ptrdiff_t>(filled_), begin);
        filled_ -= next_;
        next_ = 0;
    }
    if (block_.empty()) {
        block_.resize(kBlockLength);
    } else if (filled_ == block_.size()) {
        block_.resize(std::min(recordLength, 2 * block_.size()));
    } else if (block_.size() > kBlockLength && recordLength <= kBlockLength && filled_ < kBlockLength) {
        // Shrinks the block after a long record, because the source may have no data for days.
        block_.resize(kBlockLength);
        block_.shrink_to_fit();
    }
    const auto count = source_.read(std::span(block_).subspan(filled_));
    if (count > 0) {
        filled_ += static_cast<std::size_t>(count);
        return true;
    }
    if (count < 0) {
        finish(End::kReadError);
    } else {
        finish(leftUnread() == 0 ? End::kEndOfData : End::kTruncatedRecord);
    }
    return false;
}

std::ptrdiff_t RecordReader::finish(End end) {
    end_ = end;
    return -1;
}

}  // namespace sentrova::bsm
