#include "platform/darwin/KernelQueue.h"

#include <fcntl.h>
#include <sys/event.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>

namespace sentrova::platform {

namespace {
constexpr std::uintptr_t kEnd = 0;
}  // namespace

KernelQueue::KernelQueue() : queue_(::kqueue()) {
    if (queue_) {
        ::fcntl(queue_.get(), F_SETFD, FD_CLOEXEC);
        if (!watch(kEnd, EVFILT_USER, NOTE_FFNOP)) {
            queue_.reset();
        }
    }
}

bool KernelQueue::watch(std::uintptr_t what, std::int16_t filter, std::uint32_t notes) {
    return change(what, filter, EV_ADD | EV_CLEAR, notes);
}

std::optional<std::vector<std::uintptr_t>> KernelQueue::waitForEvents() {
    for (;;) {
        // Large enough for all watched events at once, so that an end is always among them.
        std::array<struct kevent, 8> events{};
        const int count = ::kevent(queue_.get(), nullptr, 0, events.data(), static_cast<int>(events.size()), nullptr);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        const auto happened = std::span(events).first(static_cast<std::size_t>(std::max(count, 0)));
        const bool goesOn = !happened.empty() && std::ranges::none_of(happened, [](const struct kevent& event) {
            return event.filter == EVFILT_USER || (event.flags & EV_ERROR) != 0;
        });
        if (!goesOn) {
            return std::nullopt;
        }
        std::vector<std::uintptr_t> numbers(happened.size());
        std::ranges::transform(happened, numbers.begin(), &kevent::ident);
        return numbers;
    }
}

void KernelQueue::end() {
    change(kEnd, EVFILT_USER, 0, NOTE_TRIGGER);
}

bool KernelQueue::change(std::uintptr_t what, std::int16_t filter, std::uint16_t flags, std::uint32_t notes) {
    struct kevent event{};
    event.ident = what;
    event.filter = filter;
    event.flags = flags;
    event.fflags = notes;
    int result = -1;
    do {
        result = ::kevent(queue_.get(), &event, 1, nullptr, 0, nullptr);
    } while (result < 0 && errno == EINTR);
    return result >= 0;
}

}  // namespace sentrova::platform
