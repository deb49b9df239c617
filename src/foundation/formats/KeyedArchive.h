// The keyed archive of a mutable dictionary with number keys, in the format of the Mac's NSKeyedArchiver: a binary
// property list with "$archiver", "$version", "$top" and a table "$objects" whose objects refer to one another by
// index.
//
// A Mac can read the archives written here, and the reverse. Input is hostile, as in PropertyList. Safe from any
// thread.

#pragma once

#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

#include <cstdint>
#include <map>
#include <span>

namespace sentrova {

class KeyedArchive {
  public:
    using Content = std::map<std::int64_t, Dictionary>;

    // The entries may hold strings, numbers and booleans. Fails with the key on any other value and on text that is not
    // UTF-8.
    static Result<Data> archive(const Content& content);

    // The archive must hold a dictionary (mutable or not) from whole numbers to dictionaries. Fails with the reason on
    // anything else.
    static Result<Content> unarchive(std::span<const std::uint8_t> bytes);
};

}  // namespace sentrova
