#include "platform/AuditPipeDevice.h"

#include <fcntl.h>
#include <sys/ioccom.h>
#include <sys/ioctl.h>

#include <cerrno>

namespace sentrova::platform {

namespace {

// The argument of the requests for event classes: one mask per outcome of an event.
struct ClassMasks {
    std::uint32_t success;
    std::uint32_t failure;
};

// The number of a request encodes the direction and the size of its argument.
constexpr unsigned long number(AuditPipeRequest request) {
    return static_cast<unsigned long>(request);
}

// AUDITPIPE_GET_DROPS, a 64-bit count.
constexpr unsigned long kGetDrops = _IOR('A', 102, std::uint64_t);

static_assert(IOCPARM_LEN(number(AuditPipeRequest::setPreselectFlags)) == sizeof(ClassMasks));
static_assert(IOCPARM_LEN(number(AuditPipeRequest::setQlimit)) == sizeof(std::uint32_t));

// The kernel's device. Each open creates a separate queue, which exists until the descriptor is closed.
class KernelDevice final : public AuditPipeDevice {
  public:
    Result<FileDescriptor> open(const std::string& path) override {
        int descriptor = -1;
        do {
            descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        } while (descriptor < 0 && errno == EINTR);
        if (descriptor < 0) {
            return posixError(errno);
        }
        return FileDescriptor(descriptor);
    }

    Result<std::uint32_t> request(const FileDescriptor& device, AuditPipeRequest request,
                                  std::uint32_t argument) override {
        ClassMasks masks{argument, argument};
        const bool takesMasks = IOCPARM_LEN(number(request)) == sizeof masks;
        void* const content = takesMasks ? static_cast<void*>(&masks) : &argument;
        if (::ioctl(device.get(), number(request), content) == -1) {
            return posixError(errno);
        }
        return argument;
    }

    Result<std::uint64_t> drops(const FileDescriptor& device) override {
        std::uint64_t count = 0;
        if (::ioctl(device.get(), kGetDrops, &count) == -1) {
            return posixError(errno);
        }
        // The request is defined with a 64-bit argument, but the kernel writes the lower half only.
        return static_cast<std::uint32_t>(count);
    }
};

}  // namespace

std::unique_ptr<AuditPipeDevice> AuditPipeDevice::make() {
    return std::make_unique<KernelDevice>();
}

}  // namespace sentrova::platform
