#include "server/ServerConnection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
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

ServerConnection::~ServerConnection() {
    stream_.reset();
    ::close(socket_);
}

bool ServerConnection::handshake() {
    stream_.reset(BIO_new_socket(socket_, BIO_NOCLOSE));
    if (!tls_) {
        return true;
    }
    stream_.reset(BIO_push(BIO_new_ssl(tls_.get(), 0), stream_.release()));
    return BIO_do_handshake(stream_.get()) == 1;
}

std::size_t ServerConnection::read(char* bytes, std::size_t room) {
    std::size_t count = 0;
    return BIO_read_ex(stream_.get(), bytes, room, &count) == 1 ? count : 0;
}

bool ServerConnection::write(std::string_view bytes) {
    for (std::size_t count = 0; !bytes.empty() && !shutDown_; bytes.remove_prefix(count)) {
        if (BIO_write_ex(stream_.get(), bytes.data(), bytes.size(), &count) != 1) {
            return false;
        }
    }
    return !shutDown_;
}

void ServerConnection::awaitEnd() {
    std::array<char, 4096> lost;
    while (::recv(socket_, lost.data(), lost.size(), 0) > 0) {
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

Listener::Listener(int port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int yes = 1;
    ::setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    socklen_t size = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    if (::bind(socket_, generic, size) != 0 || ::listen(socket_, 64) != 0 ||
        ::getsockname(socket_, generic, &size) != 0) {
        ::close(socket_);
        throw std::runtime_error("cannot listen on port " + std::to_string(port));
    }
    port_ = ntohs(address.sin_port);
}

Listener::~Listener() {
    ::close(socket_);
}

std::unique_ptr<ServerConnection> Listener::accept(const TlsContext& tls) const {
    int socket = -1;
    do {
        socket = ::accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
    } while (socket < 0 && (errno == EINTR || errno == ECONNABORTED));
    if (socket < 0) {
        return nullptr;
    }
    const int yes = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    return std::make_unique<ServerConnection>(socket, tls);
}

void Listener::shutDown() const {
    ::shutdown(socket_, SHUT_RDWR);
}

}  // namespace sentrova::testing
