// The live audit device, and the requests that configure it for a reader.

#pragma once

#include "foundation/files/FileDescriptor.h"
#include "foundation/value/Result.h"

#include <cstdint>
#include <memory>
#include <string>

namespace sentrova::platform {

// The device's requests that a reader sends, with the kernel's numbers and arguments.
enum class AuditPipeRequest : std::uint32_t {
    setPreselectMode = 0x8004410F,     // int: which preselection applies to this reader
    getQlimitMax = 0x40044105,         // unsigned int, read: the longest queue that the device grants
    setQlimit = 0x80044103,            // unsigned int: the length of this reader's queue
    setPreselectFlags = 0x80084107,    // mask of event classes, success and failure
    setPreselectNaflags = 0x80084109,  // the same, for events that belong to no user
};

class AuditPipeDevice {
  public:
    virtual ~AuditPipeDevice() = default;

    // The host's implementation.
    static std::unique_ptr<AuditPipeDevice> make();

    // Returns a descriptor for reading records. It does not reach an end of file while the device exists.
    virtual Result<FileDescriptor> open(const std::string& path) = 0;

    // Sends a request. If the request takes two masks (success and failure), both get the argument. Returns the value
    // that a reading request read; for other requests, the argument.
    virtual Result<std::uint32_t> request(const FileDescriptor& device, AuditPipeRequest request,
                                          std::uint32_t argument) = 0;

    // Returns how many records the device has dropped since it was opened, because its queue was full or the kernel had
    // no memory. The count wraps at 2^32.
    virtual Result<std::uint64_t> drops(const FileDescriptor& device) = 0;

  protected:
    AuditPipeDevice() = default;
    AuditPipeDevice(const AuditPipeDevice&) = default;
    AuditPipeDevice& operator=(const AuditPipeDevice&) = default;
};

}  // namespace sentrova::platform
