// The live audit device and the requests by which a reader configures it.

#pragma once

#include "foundation/files/FileDescriptor.h"
#include "foundation/value/Result.h"

#include <cstdint>
#include <memory>
#include <string>

namespace sentrova::platform {

// The requests of the device, with their numbers and arguments as the kernel defines them.
enum class AuditPipeRequest : std::uint32_t {
    setPreselectMode = 0x8004410F,     // int: which preselection applies to this reader
    getQlimitMax = 0x40044105,         // unsigned int, read: the longest queue the device grants
    setQlimit = 0x80044103,            // unsigned int: the length of this reader's queue
    setPreselectFlags = 0x80084107,    // mask of event classes, success and failure
    setPreselectNaflags = 0x80084109,  // the same, for events that belong to no user
};

class AuditPipeDevice {
  public:
    virtual ~AuditPipeDevice() = default;

    // The host's device.
    static std::unique_ptr<AuditPipeDevice> make();

    // A descriptor to read records from, which does not end while the device is there.
    virtual Result<FileDescriptor> open(const std::string& path) = 0;

    // Passes a request on. A request with a mask sends the argument as both its halves. Returns what a reading request
    // read, and the argument for the others.
    virtual Result<std::uint32_t> request(const FileDescriptor& device, AuditPipeRequest request,
                                          std::uint32_t argument) = 0;

  protected:
    AuditPipeDevice() = default;
    AuditPipeDevice(const AuditPipeDevice&) = default;
    AuditPipeDevice& operator=(const AuditPipeDevice&) = default;
};

}  // namespace sentrova::platform
