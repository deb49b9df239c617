// An open source of audit records: a closed trail file, or the live audit device.

#pragma once

#include "collection/bsm/ByteSource.h"
#include "foundation/files/FileDescriptor.h"
#include "foundation/value/Result.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

namespace sentrova {

// Why a source cannot be opened: the name of the failed step as the log shows it, and the system's own description.
class AuditSourceError : public std::runtime_error {
  public:
    AuditSourceError(std::string name, const std::string& reason, std::string systemReason)
        : std::runtime_error(reason), name_(std::move(name)), systemReason_(std::move(systemReason)) {}

    const std::string& name() const { return name_; }
    const std::string& systemReason() const { return systemReason_; }

  private:
    std::string name_;
    std::string systemReason_;
};

// One thread reads; any thread may interrupt.
class AuditSource final : public bsm::ByteSource {
  public:
    static constexpr const char* kPipe = "/dev/auditpipe";

    // Opens a trail file or the device. The device gets its longest queue, and preselects logon and authentication
    // events. Throws AuditSourceError, named "FileNotOpen" or after the device request that failed.
    static std::unique_ptr<AuditSource> open(const std::string& path);

    // Blocks for data. Returns -1 after an interrupt; a call that waits for the device then returns at once.
    std::ptrdiff_t read(std::span<std::uint8_t> into) override;
    void interrupt();

    // How many records the device has dropped since it was opened, because its queue was full. For the device alone.
    Result<std::uint64_t> drops();

    // The error number of the last failed read; 0 if there was none. For the reading thread only.
    int problem() const { return problem_; }

  private:
    AuditSource() = default;

    FileDescriptor file_;
    // A pipe that wakes a reader of the device. Its reading end is readable once the source is interrupted.
    FileDescriptor wakeReading_;
    FileDescriptor wakeWriting_;
    std::atomic<bool> interrupted_ = false;
    int problem_ = 0;
};

}  // namespace sentrova
