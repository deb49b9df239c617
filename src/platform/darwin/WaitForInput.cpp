#include "platform/WaitForInput.h"

#include <sys/select.h>

#include <algorithm>
#include <cerrno>

namespace sentrova::platform {

namespace {

// FD_SET would write out of bounds for a larger descriptor.
bool fitsASet(int descriptor) {
    return descriptor >= 0 && descriptor < FD_SETSIZE;
}

}  // namespace

// Uses select, because poll does not support the audit device on this host.
InputWait waitForInput(int device, int wake) {
    if (!fitsASet(device) || !fitsASet(wake)) {
        errno = EBADF;
        return InputWait::failed;
    }
    fd_set readable;
    int count = 0;
    do {
        FD_ZERO(&readable);
        FD_SET(device, &readable);
        FD_SET(wake, &readable);
        count = ::select(std::max(device, wake) + 1, &readable, nullptr, nullptr, nullptr);
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        return InputWait::failed;
    }
    return FD_ISSET(wake, &readable) ? InputWait::woken : InputWait::ready;
}

}  // namespace sentrova::platform
