#include "support/ServerConnection.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>

#include <openssl/evp.h>
#include <openssl/x509.h>

namespace sentrova::testing {

namespace {

using Key = std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)>;
using Certificate = std::unique_ptr<X509, void (*)(X509*)>;

void require(bool done) {
    if (!done) {
        throw std::runtime_error("TLS cannot be set up");
    }
}

Certificate selfSigned(const Key& key, const ServerTls& tls) {
    constexpr long kDay = 24 * 60 * 60;
    Certificate certificate(X509_new(), X509_free);
    require(certificate != nullptr);
    X509_set_version(certificate.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), tls.validFrom * kDay);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), tls.validUntil * kDay);
    auto* const name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(tls.host), -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    X509_set_pubkey(certificate.get(), key.get());
    require(X509_sign(certificate.get(), key.get(), EVP_get_digestbyname(tls.digest)) > 0);
    return certificate;
}

}  // namespace

TlsContext makeTlsContext(const ServerTls& tls) {
    const Key key(tls.rsaBits > 0 ? EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", std::size_t{tls.rsaBits})
                                  : EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"),
                  EVP_PKEY_free);
    require(key != nullptr);
    const auto certificate = selfSigned(key, tls);
    TlsContext context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    require(context != nullptr);
    SSL_CTX_set_security_level(context.get(), 0);
    require(SSL_CTX_use_certificate(context.get(), certificate.get()) == 1 &&
            SSL_CTX_use_PrivateKey(context.get(), key.get()) == 1);
    if (tls.onlyVersion != 0) {
        require(SSL_CTX_set_min_proto_version(context.get(), tls.onlyVersion) == 1 &&
                SSL_CTX_set_max_proto_version(context.get(), tls.onlyVersion) == 1);
    }
    if (tls.asksForClientCertificate) {
        SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, [](int, X509_STORE_CTX*) { return 1; });
    }
    return context;
}

ServerConnection::ServerConnection(int socket, TlsContext tls) : socket_(socket), tls_(std::move(tls)) {}

ServerConnection::~ServerConnection() {
    ssl_.reset();
    ::close(socket_);
}

bool ServerConnection::handshake() {
    if (!tls_) {
        return true;
    }
    ssl_.reset(SSL_new(tls_.get()));
    return ssl_ && SSL_set_fd(ssl_.get(), socket_) == 1 && SSL_accept(ssl_.get()) == 1;
}

std::size_t ServerConnection::read(char* bytes, std::size_t room) {
    if (ssl_) {
        std::size_t count = 0;
        return SSL_read_ex(ssl_.get(), bytes, room, &count) == 1 ? count : 0;
    }
    const auto count = ::recv(socket_, bytes, room, 0);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

bool ServerConnection::write(std::string_view bytes) {
    while (!bytes.empty() && !shutDown_) {
        std::size_t count = 0;
        if (ssl_) {
            if (SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &count) != 1) {
                return false;
            }
        } else {
            const auto sent = ::send(socket_, bytes.data(), bytes.size(), 0);
            if (sent <= 0) {
                return false;
            }
            count = static_cast<std::size_t>(sent);
        }
        bytes.remove_prefix(count);
    }
    return !shutDown_;
}

void ServerConnection::awaitEnd() {
    std::array<char, 4096> lost;
    // The socket has a time-out of its own, which is no end.
    for (ssize_t got = 1; got > 0 || (got < 0 && errno == EAGAIN);) {
        got = ::recv(socket_, lost.data(), lost.size(), 0);
    }
}

bool ServerConnection::awaitEnd(std::chrono::milliseconds time) {
    pollfd readable{socket_, POLLIN, 0};
    if (::poll(&readable, 1, static_cast<int>(time.count())) <= 0) {
        return false;
    }
    char next = 0;
    return ::recv(socket_, &next, 1, MSG_PEEK) <= 0;
}

void ServerConnection::shutDown() {
    shutDown_ = true;
    ::shutdown(socket_, SHUT_RDWR);
}

void ServerConnection::reset() {
    shutDown_ = true;
    const linger none{1, 0};
    ::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &none, sizeof none);
}

void ServerConnection::endAnswer() {
    ::shutdown(socket_, SHUT_WR);
}

}  // namespace sentrova::testing
