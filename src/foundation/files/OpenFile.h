// A file that is open for writing at any offset.

#pragma once

#include "foundation/value/Result.h"

#include <cstdint>
#include <span>

namespace sentrova {

// Closed by the destructor. The FileSystem that opened the file must outlive it. The file stays the same one when its
// path is renamed or gets another file. For one thread at a time.
class OpenFile {
  public:
    virtual ~OpenFile() = default;
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    // Writes the content at the offset, in bytes, and extends the file if it ends before. Zero bytes fill a gap. A
    // failed call may have written any first part of the content: write the same bytes again, or truncate.
    virtual Result<Done> write(std::uint64_t offset, std::span<const std::uint8_t> content) = 0;
    // Makes the content survive a power loss, but not the name of a file that is new in its folder: see
    // FileSystem::flushFile. After a failure, any unflushed part may be missing from the disk.
    virtual Result<Done> flush() = 0;
    // Cuts the file off at the size, in bytes.
    virtual Result<Done> truncate(std::uint64_t size) = 0;

  protected:
    OpenFile() = default;
};

}  // namespace sentrova
