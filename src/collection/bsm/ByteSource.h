// Where audit bytes come from: a trail file, the audit pipe, or a test's memory.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace sentrova::bsm {

class ByteSource {
  public:
    virtual ~ByteSource() = default;

    // Fills the front of the given bytes (never empty) with what comes next and returns how many there are; blocks
    // while there are none yet. A part of a record or several records may arrive at once. Returns 0 at the end of the
    // data and -1 when reading failed or was cancelled.
    virtual std::ptrdiff_t read(std::span<std::uint8_t> into) = 0;
};

}  // namespace sentrova::bsm
