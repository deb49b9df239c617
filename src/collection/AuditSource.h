// An opened source of audit records: a closed trail file, or the live audit device.

#pragma once

#include "collection/bsm/ByteSource.h"
#include "foundation/files/FileDescriptor.h"

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>

namespace sentrova {

// Why a source cannot be read, under the name that the log gives to the reason; with the system's own words for it.
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

// Read by one thread; interrupted by any.
class AuditSource final : public bsm::ByteSource {
  public:
    static constexpr const char* kPipe = "/dev/auditpipe";

    // Opens a trail file, or the device, with its queue at the longest and logon and authentication events preselected.
    // Throws AuditSourceError named "FileNotOpen", or after the request of the device that failed.
    static std::unique_ptr<AuditSource> open(const std::string& path);

    // Fails once the source was interrupted; a call that waits for the device then returns at once.
    std::ptrdiff_t read(std::span<std::uint8_t> into) override;
    void interrupt();

    // Why the last read failed, as an error number; for the reading thread.
    int problem() const { return problem_; }

  private:
    AuditSource() = default;

    FileDescriptor file_;
    // The device's alone: readable once the source was interrupted.
    FileDescriptor wakeReading_;
    FileDescriptor wakeWriting_;
    std::atomic<bool> interrupted_ = false;
    int problem_ = 0;
};

}  // namespace sentrova
