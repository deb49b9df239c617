// A listening socket on loopback, and one connection that a server has accepted, plain or with TLS.

#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string_view>

#include <openssl/ssl.h>

namespace sentrova::testing {

// The TLS properties of a server. Numbers have OpenSSL's meaning, except where a comment gives another one.
struct ServerTls {
    bool asksForClientCertificate = false;
    // The host name in the certificate.
    const char* host = "audit-server";
    // In days from now.
    int validFrom = -1;
    int validUntil = 365;
    // Bits of an RSA key; 0 means an elliptic curve key.
    unsigned rsaBits = 0;
    const char* digest = "SHA256";
    // The only protocol version that the server speaks; 0 means the library's choice.
    int onlyVersion = 0;
};

using TlsContext = std::shared_ptr<SSL_CTX>;

// Creates the TLS context of a server, with a new key and self-signed certificate, and with all weak settings allowed.
// A server that asks for client certificates accepts any, or none. Throws std::runtime_error if the library refuses.
TlsContext makeTlsContext(const ServerTls& tls);

// Used by the thread that serves it, which must have SIGPIPE blocked. Only shutDown may be called from another thread.
class ServerConnection {
  public:
    // Takes ownership of the socket. Without a context the connection is plain.
    ServerConnection(int socket, TlsContext tls) : socket_(socket), tls_(std::move(tls)) {}
    ServerConnection(const ServerConnection&) = delete;
    ServerConnection& operator=(const ServerConnection&) = delete;
    ~ServerConnection();

    // Does the TLS handshake, if any. Returns false if that fails.
    bool handshake();
    // Blocks until data arrives. Returns the number of bytes read; 0 at the end of the connection.
    std::size_t read(char* bytes, std::size_t room);
    // Sends all bytes. Returns false if the connection has ended.
    bool write(std::string_view bytes);

    // Blocks until the other side closes or the connection is shut down. Bytes received meanwhile are dropped.
    void awaitEnd();
    // The same with a timeout. Returns whether the end has come.
    bool awaitEnd(std::chrono::milliseconds time);

    // Ends the connection in both directions, without a TLS close message, and wakes a thread that waits for it.
    void shutDown();
    // Makes the destructor end the connection by a reset.
    void reset();
    // Closes the direction of the answers only.
    void endAnswer();

  private:
    const int socket_;
    const TlsContext tls_;
    std::unique_ptr<BIO, void (*)(BIO*)> stream_{nullptr, BIO_free_all};
    std::atomic<bool> shutDown_{false};
};

class Listener {
  public:
    // 0 means any free port. Throws std::runtime_error if the port is not available.
    explicit Listener(int port = 0);
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener();

    int port() const { return port_; }
    // Blocks until the next connection. Returns nothing after shutDown, which any thread may call.
    std::unique_ptr<ServerConnection> accept(const TlsContext& tls = nullptr) const;
    void shutDown() const;

  private:
    const int socket_;
    int port_ = 0;
};

}  // namespace sentrova::testing
