// A server on loopback in a separate process, so that its work does not count as the agent's.

#pragma once

#include "foundation/files/FileDescriptor.h"

#include <sys/types.h>

#include <chrono>
#include <cstdint>

namespace sentrova::bench {

// The constructor forks, so construct it before the process starts threads. Not thread-safe.
class LoopbackServer {
  public:
    enum class Kind {
        // The stand-in audit server of the tests. Parses the deliveries and counts events.
        audit,
        // The same server, refusing every delivery.
        refusing,
        // Answers every request with 200 on its last byte, without parsing the body, and counts requests. Keeps the
        // server's share of a measurement small.
        sink,
    };

    explicit LoopbackServer(Kind kind);
    ~LoopbackServer();
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    int port() const;
    // How many events or requests have arrived since the start.
    std::uint64_t arrived() const;
    // Returns false if fewer have arrived when the time is over.
    [[nodiscard]] bool waitFor(std::uint64_t arrived, std::chrono::seconds time) const;

  private:
    struct Shared;

    // In memory that both processes share. Never unmapped.
    Shared* const shared_;
    // Write end of a pipe. The server exits when it is closed, also when this process dies.
    FileDescriptor lifeline_;
    pid_t process_ = -1;
};

}  // namespace sentrova::bench
