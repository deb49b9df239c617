// A kqueue: one thread waits on it for what is watched, any thread ends the wait.

#pragma once

#include "foundation/files/FileDescriptor.h"

#include <cstdint>

namespace sentrova::platform {

class KernelQueue {
  public:
    // False when the system has no further descriptor for it.
    explicit operator bool() const { return static_cast<bool>(queue_); }

    KernelQueue();

    // Watches from now on: what happens before wait() is kept for it. Returns false when that is not possible.
    bool watch(std::uintptr_t what, std::int16_t filter, std::uint32_t notes);

    // Blocks until something that is watched has happened, however often, since the last call. Returns false once the
    // queue was ended, whatever else has happened.
    bool wait();

    // Ends the present wait or the next one.
    void end();

    // Only while nobody waits.
    void close() { queue_.reset(); }

  private:
    bool change(std::uintptr_t what, std::int16_t filter, std::uint16_t flags, std::uint32_t notes);

    FileDescriptor queue_;
};

}  // namespace sentrova::platform
