// A source of audit bytes: a trail file, the audit pipe, or memory in a test.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace sentrova::bsm {

class ByteSource {
  public:
    virtual ~ByteSource() = default;

    // Reads the next bytes into the front of `into` (never empty) and returns their number; blocks while there are
    // none. The bytes may be a part of a record or several records. Returns 0 at the end of the data, and -1 if reading
    // failed or was cancelled.
    virtual std::ptrdiff_t read(std::span<std::uint8_t> into) = 0;
};

}  // namespace sentrova::bsm
