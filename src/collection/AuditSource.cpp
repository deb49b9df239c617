#include "collection/AuditSource.h"

#include "foundation/files/FileSystem.h"
#include "foundation/run/Current.h"
#include "platform/AuditPipeDevice.h"
#include "platform/ChildDescriptors.h"
#include "platform/SystemPath.h"
#include "platform/WaitForInput.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace sentrova {

namespace {

using platform::AuditPipeDevice;
using platform::AuditPipeRequest;

// The device follows the system's own preselection ("trail mode").
constexpr std::uint32_t kTrailMode = 1;
// The classes lo (logon) and aa (authentication).
constexpr std::uint32_t kClasses = 0x1000 | 0x2000;

std::uint32_t request(const FileDescriptor& device, AuditPipeRequest which, const char* name, std::uint32_t argument) {
    const auto answer = Current<AuditPipeDevice>::get().request(device, which, argument);
    if (!answer) {
        throw AuditSourceError(name, "Exception in ioctl", answer.error().description);
    }
    return *answer;
}

void configure(const FileDescriptor& device) {
    request(device, AuditPipeRequest::setPreselectMode, "AUDITPIPE_SET_PRESELECT_MODE", kTrailMode);
    const auto longest = request(device, AuditPipeRequest::getQlimitMax, "AUDITPIPE_GET_QLIMIT_MAX", 0);
    request(device, AuditPipeRequest::setQlimit, "AUDITPIPE_SET_QLIMIT", longest);
    request(device, AuditPipeRequest::setPreselectFlags, "AUDITPIPE_SET_PRESELECT_FLAGS", kClasses);
    request(device, AuditPipeRequest::setPreselectNaflags, "AUDITPIPE_SET_PRESELECT_NAFLAGS", kClasses);
}

}  // namespace

std::unique_ptr<AuditSource> AuditSource::open(const std::string& path) {
    std::unique_ptr<AuditSource> source(new AuditSource);  // NOLINT: the constructor is private
    const bool isPipe = path == kPipe;
    const auto hostPath = platform::systemPath(path);
    auto file =
        isPipe ? Current<AuditPipeDevice>::get().open(hostPath) : Current<FileSystem>::get().openForReading(hostPath);
    if (!file) {
        throw AuditSourceError("FileNotOpen", "failed to open audit pipe", file.error().description);
    }
    source->file_ = *std::move(file);
    if (isPipe) {
        configure(source->file_);
        auto wake = platform::makePipe();
        if (!wake) {
            const auto reason = posixError(errno).description;
            throw AuditSourceError("FileNotOpen", reason, reason);
        }
        source->wakeReading_ = std::move(wake->reading);
        source->wakeWriting_ = std::move(wake->writing);
    }
    return source;
}

std::ptrdiff_t AuditSource::read(std::span<std::uint8_t> into) {
    while (!interrupted_) {
        if (wakeReading_) {
            const auto wait = platform::waitForInput(file_.get(), wakeReading_.get());
            if (wait != platform::InputWait::ready) {
                problem_ = wait == platform::InputWait::failed ? errno : 0;
                return -1;
            }
        }
        const auto got = Current<FileSystem>::get().readOnce(file_.get(), into);
        if (got >= 0) {
            return got;
        }
        if (errno != EINTR && errno != EAGAIN) {
            problem_ = errno;
            return -1;
        }
    }
    return -1;
}

Result<std::uint64_t> AuditSource::drops() {
    return Current<AuditPipeDevice>::get().drops(file_);
}

void AuditSource::interrupt() {
    interrupted_ = true;
    if (wakeWriting_) {
        static_cast<void>(!::write(wakeWriting_.get(), "", 1));
    }
}

}  // namespace sentrova
