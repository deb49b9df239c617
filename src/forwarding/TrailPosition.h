// How far a trail has been read, in the durable mode.

#pragma once

#include <compare>
#include <cstdint>
#include <string>

namespace sentrova {

// Names a trail for as long as it exists. A rotation renames the file and keeps all three parts. A new file may get the
// number of a removed one, but not its first record.
struct TrailIdentity {
    // The volume and the file's number on it, as stat gives them.
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    // The digest of the first record; see RecordDigest.h.
    std::string firstRecord;

    friend auto operator<=>(const TrailIdentity&, const TrailIdentity&) = default;
};

// NOLINTBEGIN(readability-redundant-member-init): callers may leave out members that have an initializer
struct TrailPosition {
    TrailIdentity trail;
    // The file's name when it was last seen.
    std::string name = {};
    // Where the next unread record begins, in bytes.
    std::uint64_t offset = 0;
    // The length and the digest of the record that ends at the offset. 0 and empty if there is nothing to compare: at
    // offset 0, behind a record that is too long to be read, and behind a trail that was read before the switching-on.
    std::uint64_t lastLength = 0;
    std::string lastRecord = {};
    // The time of that record, in seconds since 1970.
    std::uint64_t time = 0;
    // Older records (seconds since 1970) are skipped up to `size`, because they were reported before the mode was
    // switched on, or before a replay. 0: none.
    std::uint64_t since = 0;
    // The file's size when it was last seen (while `since` holds: at the switching-on, or the offset before the
    // replay), and whether the system was still writing it: the gap that remains if the file is removed.
    std::uint64_t size = 0;
    bool isOpen = false;

    friend bool operator==(const TrailPosition&, const TrailPosition&) = default;
};
// NOLINTEND(readability-redundant-member-init)

}  // namespace sentrova
