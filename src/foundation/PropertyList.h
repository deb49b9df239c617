// Property lists: read in their XML and binary forms, written as XML (version 1.0).
//
// Input is hostile: its size, nesting and, in the binary form, its references are checked before it is parsed.
// Safe from any thread.

#pragma once

#include "foundation/Result.h"
#include "foundation/Value.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace sentrova {

class PropertyList {
  public:
    static constexpr std::size_t kMaximumBytes = 64 * 1024 * 1024;
    static constexpr std::size_t kMaximumDepth = 128;
    // Binary lists share objects; this is how many there may be when every share is counted.
    static constexpr std::size_t kMaximumObjects = 4'000'000;

    // The root value; fails with the reason when the bytes are no property list.
    static Result<Value> parse(std::span<const std::uint8_t> bytes);

    // Fails, naming the culprit, on what a property list cannot carry: an empty value, text that is not UTF-8 or has
    // control characters that XML forbids.
    static Result<Data> writeXml(const Value& value);
};

}  // namespace sentrova
