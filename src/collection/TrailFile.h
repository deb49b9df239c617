// An audit trail, opened for reading from any offset.

#pragma once

#include "collection/bsm/ByteSource.h"
#include "foundation/files/FileDescriptor.h"
#include "foundation/files/FileSystem.h"
#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace sentrova {

// Not thread-safe.
class TrailFile final : public bsm::ByteSource {
  public:
    // The path is that of the Mac's system. The file system must outlive the file.
    static Result<std::unique_ptr<TrailFile>> open(FileSystem& files, const std::string& path);

    // Moves to an offset from the beginning of the file. Until the next call, `read` returns at most `largestRead`
    // bytes.
    void seek(std::uint64_t offset, std::size_t largestRead = kLargestRead);
    std::ptrdiff_t read(std::span<std::uint8_t> into) override;

    // The bytes from an offset on. Fewer if the file ends before. Moves the offset.
    Result<Data> bytes(std::uint64_t offset, std::size_t length);

    // The error number of the last failed read.
    int problem() const { return problem_; }

  private:
    static constexpr std::size_t kLargestRead = 1024 * 1024;

    TrailFile(FileSystem& files, FileDescriptor file) : files_(files), file_(std::move(file)) {}

    FileSystem& files_;
    const FileDescriptor file_;
    std::size_t largestRead_ = kLargestRead;
    int problem_ = 0;
};

}  // namespace sentrova
