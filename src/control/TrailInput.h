// A file with audit records, or standard input.

#pragma once

#include "collection/bsm/ByteSource.h"
#include "foundation/files/FileDescriptor.h"
#include "foundation/value/Result.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace sentrova::control {

// Not thread-safe.
class TrailInput final : public bsm::ByteSource {
  public:
    // Opens anything that can be read but a folder. Opening a FIFO blocks until it has a writer.
    static Result<std::unique_ptr<TrailInput>> open(const std::string& path);
    // The descriptor belongs to the process.
    static std::unique_ptr<TrailInput> standardInput();

    // Called with the number of bytes of each read.
    void onRead(std::function<void(std::size_t)> tell) { tell_ = std::move(tell); }

    std::ptrdiff_t read(std::span<std::uint8_t> into) override;
    // The error number of the last failed read; 0 if there was none.
    int problem() const { return problem_; }
    // The present size. Absent for standard input, which may begin in the middle of a file, and for anything but a
    // regular file.
    std::optional<std::uint64_t> size() const;

  private:
    TrailInput(FileDescriptor file, int number) : file_(std::move(file)), number_(number) {}

    // Empty for standard input.
    const FileDescriptor file_;
    const int number_;
    std::function<void(std::size_t)> tell_;
    int problem_ = 0;
};

}  // namespace sentrova::control
