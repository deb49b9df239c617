// The keyed archive of a mutable dictionary with number keys, as the platform's archiver writes it: a binary property
// list with "$archiver", "$version", "$top" and a table of "$objects" that refer to one another by index.
//
// Written by us it opens on a Mac, and the reverse. Input is hostile, as in PropertyList. Safe from any thread.

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

    // The entries may hold strings, numbers and booleans; anything else, and text that is not UTF-8, fails, naming it.
    static Result<Data> archive(const Content& content);

    // Fails with the reason on anything but the archive of a dictionary (mutable or not) from whole numbers to
    // dictionaries.
    static Result<Content> unarchive(std::span<const std::uint8_t> bytes);
};

}  // namespace sentrova
