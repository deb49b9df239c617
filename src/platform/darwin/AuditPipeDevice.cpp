#include "platform/AuditPipeDevice.h"

#include <fcntl.h>
#include <sys/ioccom.h>
#include <sys/ioctl.h>

#include <cerrno>

namespace sentrova::platform {

namespace {

// What the requests for event classes carry: one mask for each outcome of an event.
struct ClassMasks {
    std::uint32_t success;
    std::uint32_t failure;
};

// The direction and the size of its argument are part of a request's number.
constexpr unsigned long number(AuditPipeRequest request) {
    return static_cast<unsigned long>(request);
}
static_assert(IOCPARM_LEN(number(AuditPipeRequest::setPreselectFlags)) == sizeof(ClassMasks));
static_assert(IOCPARM_LEN(number(AuditPipeRequest::setQlimit)) == sizeof(std::uint32_t));

// The kernel's device: each time it is opened it is a queue of its own, which goes with its descriptor.
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
};

}  // namespace

std::unique_ptr<AuditPipeDevice> AuditPipeDevice::make() {
    return std::make_unique<KernelDevice>();
}

}  // namespace sentrova::platform
