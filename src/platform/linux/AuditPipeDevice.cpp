#include "platform/AuditPipeDevice.h"

#include <fcntl.h>

#include <cerrno>

namespace sentrova::platform {

namespace {

// A FIFO of the system volume stands for the device. It has no preselection and no queue limit to set.
class FifoDevice final : public AuditPipeDevice {
  public:
    Result<FileDescriptor> open(const std::string& path) override {
        // Opened for writing too, because a FIFO without a writer would be at its end.
        FileDescriptor fifo(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        if (!fifo) {
            return posixError(errno);
        }
        return fifo;
    }

    Result<std::uint32_t> request(const FileDescriptor&, AuditPipeRequest request, std::uint32_t argument) override {
        constexpr std::uint32_t kQueueLimit = 1024;
        return request == AuditPipeRequest::getQlimitMax ? kQueueLimit : argument;
    }

    // The writer of a FIFO waits for room, so nothing is dropped.
    Result<std::uint64_t> drops(const FileDescriptor&) override { return std::uint64_t{0}; }
};

}  // namespace

std::unique_ptr<AuditPipeDevice> AuditPipeDevice::make() {
    return std::make_unique<FifoDevice>();
}

}  // namespace sentrova::platform
