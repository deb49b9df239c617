// A listening socket on loopback, and one connection that a server has accepted, plain or with TLS.

#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string_view>

#include <openssl/ssl.h>

namespace sentrova::testing {

// What a server shows of itself when it speaks TLS. Numbers without a meaning of their own are OpenSSL's.
struct ServerTls {
    bool asksForClientCertificate = false;
    // Whom the certificate is for.
    const char* host = "audit-server";
    // Days from now.
    int validFrom = -1;
    int validUntil = 365;
    // 0: a key on a curve.
    unsigned rsaBits = 0;
    const char* digest = "SHA256";
    // The one version of the protocol that the server speaks; 0: the library's choice.
    int onlyVersion = 0;
};

using TlsContext = std::shared_ptr<SSL_CTX>;

// A server's TLS with a key and a self-signed certificate of its own, made anew, with nothing too weak for it. One that
// asks for client certificates takes any, and none as well. Throws std::runtime_error when the library refuses.
TlsContext makeTlsContext(const ServerTls& tls);

// Belongs to the thread that serves it; only shutDown may come from another. That thread must have SIGPIPE blocked.
class ServerConnection {
  public:
    // Takes the socket, which it closes in the end. Without a context the connection is plain.
    ServerConnection(int socket, TlsContext tls) : socket_(socket), tls_(std::move(tls)) {}
    ServerConnection(const ServerConnection&) = delete;
    ServerConnection& operator=(const ServerConnection&) = delete;
    ~ServerConnection();

    // What comes before the first byte, also on a plain connection; false when that fails.
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

  private:
    const int socket_;
    const TlsContext tls_;
    std::unique_ptr<BIO, void (*)(BIO*)> stream_{nullptr, BIO_free_all};
    std::atomic<bool> shutDown_{false};
};

class Listener {
  public:
    // 0: any port that is free. Throws std::runtime_error when the port cannot be had.
    explicit Listener(int port = 0);
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener();

    int port() const { return port_; }
    // Blocks for the next connection; nothing once the listener is shut down, which any thread may do.
    std::unique_ptr<ServerConnection> accept(const TlsContext& tls = nullptr) const;
    void shutDown() const;

  private:
    const int socket_;
    int port_ = 0;
};

}  // namespace sentrova::testing
