// One connection that a server has accepted, plain or with TLS.

#pragma once

#include "support/ServerTls.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string_view>

#include <openssl/ssl.h>

namespace sentrova::testing {

using TlsContext = std::shared_ptr<SSL_CTX>;

// A server's TLS with a key and a self-signed certificate of its own, made anew, with nothing too weak for it. One that
// asks for client certificates takes any, and none as well. Throws std::runtime_error when the library refuses.
TlsContext makeTlsContext(const ServerTls& tls);

// Belongs to the thread that serves it; only shutDown may come from another. That thread must have SIGPIPE blocked.
class ServerConnection {
  public:
    // Takes the socket, which it closes in the end. Without a context the connection is plain.
    ServerConnection(int socket, TlsContext tls);
    ServerConnection(const ServerConnection&) = delete;
    ServerConnection& operator=(const ServerConnection&) = delete;
    ~ServerConnection();

    int socket() const { return socket_; }

    // What comes before the first byte; false when that fails.
    bool handshake();
    // Blocks until there is something. Returns how many bytes were read; 0 at the end of the connection.
    std::size_t read(char* bytes, std::size_t room);
    // Sends all of it; false when the connection has ended.
    bool write(std::string_view bytes);

    // Blocks until the other side closes, or the connection is shut down; what is received meanwhile is lost.
    void awaitEnd();
    // The same for at most a time; returns whether the end has come.
    bool awaitEnd(std::chrono::milliseconds time);

    // Ends the connection in both directions, without a TLS farewell, and wakes whoever waits for it.
    void shutDown();
    // Ends it by a reset, once it is destroyed.
    void reset();
    // Ends the direction of the answers.
    void endAnswer();
    bool isShutDown() const { return shutDown_; }

  private:
    struct SslDeleter {
        void operator()(SSL* ssl) const { SSL_free(ssl); }
    };

    const int socket_;
    const TlsContext tls_;
    std::unique_ptr<SSL, SslDeleter> ssl_;
    std::atomic<bool> shutDown_{false};
};

}  // namespace sentrova::testing
