// A kqueue. One thread waits for the watched events; any thread can end the wait.

#pragma once

#include "foundation/files/FileDescriptor.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace sentrova::platform {

class KernelQueue {
  public:
    // False if the system had no descriptor left.
    explicit operator bool() const { return static_cast<bool>(queue_); }

    KernelQueue();

    // Starts watching. Events before wait() are kept for it. Returns false if the kernel refuses.
    bool watch(std::uintptr_t what, std::int16_t filter, std::uint32_t notes);

    // Blocks until a watched event has happened at least once since the previous call. Returns false once end() was
    // called, whatever else happened.
    bool wait() { return waitForEvents().has_value(); }
    // The same; returns what happened, by the numbers that `watch` was given. Nothing once end() was called.
    std::optional<std::vector<std::uintptr_t>> waitForEvents();

    // Ends the current wait, or the next one if nobody waits. Safe from any thread.
    void end();

    // Closes the descriptor. Only while nobody waits.
    void close() { queue_.reset(); }

  private:
    bool change(std::uintptr_t what, std::int16_t filter, std::uint16_t flags, std::uint32_t notes);

    FileDescriptor queue_;
};

}  // namespace sentrova::platform
