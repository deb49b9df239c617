// A server on loopback in a process of its own, so that its work is not taken for the agent's.

#pragma once

#include "foundation/FileDescriptor.h"

#include <sys/types.h>

#include <chrono>
#include <cstdint>

namespace sentrova::bench {

// It forks: to be made before the process has threads. For one thread.
class LoopbackServer {
  public:
    enum class Kind {
        // The stand-in audit server of the tests, which reads what it gets; counts events.
        audit,
        // The same, but it refuses every delivery.
        refusing,
        // Answers every request with 200 as soon as its last byte has come, and looks at none; counts requests. What
        // is measured against it is the client.
        sink,
    };

    explicit LoopbackServer(Kind kind);
    ~LoopbackServer();
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    int port() const;
    // How much has arrived since the start.
    std::uint64_t arrived() const;
    // Whether as much had arrived before the time was over.
    [[nodiscard]] bool waitFor(std::uint64_t arrived, std::chrono::seconds time) const;

  private:
    struct Shared;

    // In the memory of both processes.
    Shared* const shared_;
    // The server ends when this end is closed, also by the end of this process.
    FileDescriptor lifeline_;
    pid_t process_ = -1;
};

}  // namespace sentrova::bench
