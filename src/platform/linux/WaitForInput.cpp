#include "platform/WaitForInput.h"

#include <poll.h>

#include <array>
#include <cerrno>

namespace sentrova::platform {

InputWait waitForInput(int device, int wake) {
    std::array<pollfd, 2> waits{{{device, POLLIN, 0}, {wake, POLLIN, 0}}};
    int ready = 0;
    do {
        ready = ::poll(waits.data(), waits.size(), -1);
    } while (ready < 0 && errno == EINTR);
    if (ready < 0) {
        return InputWait::failed;
    }
    if ((waits[0].revents & POLLNVAL) != 0) {
        errno = EBADF;
        return InputWait::failed;
    }
    return waits[1].revents != 0 ? InputWait::woken : InputWait::ready;
}

}  // namespace sentrova::platform
