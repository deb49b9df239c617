#include "platform/curl/AddressProbe.h"

#include "foundation/net/UrlSession.h"
#include "foundation/run/Threads.h"
#include "platform/curl/CurlTransfer.h"
#include "platform/curl/HostAddresses.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <future>
#include <iterator>
#include <memory>
#include <new>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include <curl/curl.h>

namespace sentrova::platform {

namespace {

using std::chrono::milliseconds;

struct ListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using List = std::unique_ptr<curl_slist, ListDeleter>;

std::size_t dropBody(const char* /*bytes*/, std::size_t size, std::size_t count, void* /*self*/) {
    return size * count;
}

// "TLS 1.3" of "SSL connection using TLSv1.3 / TLS_AES_256_GCM_SHA384" or "TLS 1.2 connection using ...". The library
// tells the version in its messages only.
std::string versionIn(std::string_view message) {
    if (message.find("connection using") == std::string_view::npos) {
        return {};
    }
    for (const std::string_view before : {"TLSv", "TLS "}) {
        if (const auto at = message.find(before); at != std::string_view::npos) {
            const auto rest = message.substr(at + before.size());
            return "TLS " + std::string(rest.substr(0, rest.find_first_not_of("0123456789.")));
        }
    }
    return {};
}

// What the library says while it works.
struct Heard {
    std::string version;
    // The library tells the time of the connection only after the handshake. What TLS sends shows that there is one.
    bool hasTlsBegun = false;
};

int takeMessage(CURL* /*handle*/, curl_infotype type, char* text, std::size_t size, void* into) {
    auto& heard = *static_cast<Heard*>(into);
    heard.hasTlsBegun = heard.hasTlsBegun || type == CURLINFO_SSL_DATA_OUT;
    if (type == CURLINFO_TEXT) {
        if (auto found = versionIn({text, size}); !found.empty()) {
            heard.version = std::move(found);
        }
    }
    return 0;
}

std::string_view trimmed(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

// The values after the label in a list such as "DNS:audit, IP Address:192.0.2.1" or "O = Example; CN = audit".
std::vector<std::string> valuesIn(std::string_view list, std::string_view label) {
    std::vector<std::string> values;
    while (!list.empty()) {
        const auto end = std::min(list.find_first_of(",;"), list.size());
        auto item = trimmed(list.substr(0, end));
        list.remove_prefix(std::min(end + 1, list.size()));
        if (item.starts_with(label)) {
            item = trimmed(item.substr(label.size()));
            item.remove_prefix(!item.empty() && (item.front() == ':' || item.front() == '=') ? 1 : 0);
            values.emplace_back(trimmed(item));
        }
    }
    return values;
}

class Connection {
  public:
    Connection(const CurlTransfer::Address& address, const AddressList& found, milliseconds limit)
        : resolved_(resolveList(address, found)), handle_(curl_easy_init()) {
        if (!handle_) {
            throw std::bad_alloc();
        }
        set(CURLOPT_URL, address.url.c_str());
        set(CURLOPT_RESOLVE, resolved_.get());
        set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
        set(CURLOPT_HTTP09_ALLOWED, 0L);
        // An empty name means no proxy, even if the environment names one.
        set(CURLOPT_PROXY, "");
        set(CURLOPT_NOBODY, 1L);
        set(CURLOPT_FOLLOWLOCATION, 0L);
        set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(limit.count()));
        set(CURLOPT_TIMEOUT_MS, static_cast<long>(limit.count()));
        set(CURLOPT_NOSIGNAL, 1L);
        set(CURLOPT_WRITEFUNCTION, &dropBody);
        set(CURLOPT_ERRORBUFFER, message_.data());
        set(CURLOPT_VERBOSE, 1L);
        set(CURLOPT_DEBUGFUNCTION, &takeMessage);
        set(CURLOPT_DEBUGDATA, &heard_);
        set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() = default;

    // Sends the request. The certificate is read, and any is accepted.
    CURLcode request() {
        set(CURLOPT_SSL_VERIFYPEER, 0L);
        set(CURLOPT_SSL_VERIFYHOST, 0L);
        set(CURLOPT_CERTINFO, 1L);
        return curl_easy_perform(handle_.get());
    }

    // Only connects. Fails if the system does not trust the certificate.
    CURLcode connectTrusting() {
        set(CURLOPT_CONNECT_ONLY, 1L);
        return curl_easy_perform(handle_.get());
    }

    // Times since the beginning; absent for a step that was not completed.
    AddressProbe::Time timeOf(CURLINFO info) const {
        curl_off_t microseconds = 0;
        curl_easy_getinfo(handle_.get(), info, &microseconds);
        return microseconds > 0 ? AddressProbe::Time((microseconds + 500) / 1000) : std::nullopt;
    }
    long numberOf(CURLINFO info) const {
        long number = 0;
        curl_easy_getinfo(handle_.get(), info, &number);
        return number;
    }
    std::string peer() const {
        char* address = nullptr;
        curl_easy_getinfo(handle_.get(), CURLINFO_PRIMARY_IP, &address);
        return address ? address : "";
    }
    const std::string& tlsVersion() const { return heard_.version; }
    bool hasTlsBegun() const { return heard_.hasTlsBegun; }
    std::string message(CURLcode code) const {
        return message_.front() != '\0' ? message_.data() : curl_easy_strerror(code);
    }

    // The fact about the server's certificate; empty if the library does not tell.
    std::string certificateFact(std::string_view name) const {
        curl_certinfo* chain = nullptr;
        if (curl_easy_getinfo(handle_.get(), CURLINFO_CERTINFO, &chain) != CURLE_OK || !chain ||
            chain->num_of_certs < 1) {
            return {};
        }
        for (const auto* line = *chain->certinfo; line; line = line->next) {
            const std::string_view text(line->data);
            const auto colon = text.find(':');
            if (colon != std::string_view::npos && text.substr(0, colon).ends_with(name)) {
                return std::string(trimmed(text.substr(colon + 1)));
            }
        }
        return {};
    }

  private:
    static List resolveList(const CurlTransfer::Address& address, const AddressList& found) {
        if (found.empty()) {
            return nullptr;
        }
        List list(curl_slist_append(nullptr, resolveEntry(address.host, address.port, found).c_str()));
        if (!list) {
            throw std::bad_alloc();
        }
        return list;
    }

    template <class T>
    void set(CURLoption option, T value) {
        if (const auto code = curl_easy_setopt(handle_.get(), option, value); code != CURLE_OK) {
            throw std::runtime_error("option " + std::to_string(option) + ": " + curl_easy_strerror(code));
        }
    }

    struct HandleDeleter {
        void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
    };

    Heard heard_;
    std::array<char, CURL_ERROR_SIZE> message_{};
    const List resolved_;
    std::unique_ptr<CURL, HandleDeleter> handle_;
};

// Nothing if the resolver has not answered within the limit. The thread is detached, because a resolver may block for
// minutes.
std::optional<AddressList> lookUp(const std::string& host, milliseconds limit) {
    const auto result = std::make_shared<std::promise<AddressList>>();
    auto found = result->get_future();
    auto thread = tryStartThread([host, result] { result->set_value(resolveHost(host)); });
    if (!thread.joinable()) {
        throw std::system_error(EAGAIN, std::generic_category(), "the look-up of a name");
    }
    thread.detach();
    return found.wait_for(limit) == std::future_status::ready ? std::optional(found.get()) : std::nullopt;
}

AddressProbe::Tls tlsOf(const Connection& connection) {
    AddressProbe::Tls tls;
    tls.version = connection.tlsVersion();
    const auto alternatives = connection.certificateFact("Subject Alternative Name");
    for (const auto* label : {"DNS", "IP Address"}) {
        std::ranges::move(valuesIn(alternatives, label), std::back_inserter(tls.names));
    }
    if (tls.names.empty()) {
        tls.names = valuesIn(connection.certificateFact("Subject"), "CN");
    }
    tls.issuer = connection.certificateFact("Issuer");
    if (const auto date = curl_getdate(connection.certificateFact("Expire date").c_str(), nullptr); date != -1) {
        tls.expires = date;
    }
    return tls;
}

void findTrust(Connection& connection, AddressProbe::Tls& tls) {
    const auto code = connection.connectTrusting();
    if (code == CURLE_OK) {
        tls.isTrusted = true;
    } else if (code == CURLE_PEER_FAILED_VERIFICATION || code == CURLE_SSL_CACERT_BADFILE ||
               code == CURLE_SSL_ISSUER_ERROR) {
        tls.isTrusted = false;
        tls.distrust = connection.message(code);
    }
}

std::string failureOf(const Connection& connection, CURLcode code, const AddressProbe& probe, bool isTls) {
    const bool connected = probe.connection || connection.hasTlsBegun();
    const auto* const step = !connected                  ? "the connection"
                             : isTls && !probe.handshake ? "the TLS handshake"
                                                         : "the answer";
    // Some of the library's texts end with a blank.
    const auto text = std::string(trimmed(connection.message(code)));
    switch (code) {
        case CURLE_OPERATION_TIMEDOUT:
            return std::string(step) + " timed out";
        case CURLE_COULDNT_CONNECT: {
            const auto number = static_cast<int>(connection.numberOf(CURLINFO_OS_ERRNO));
            const auto reason = number != 0 ? std::generic_category().message(number) : text;
            return number == ECONNREFUSED ? "the connection was refused" : "no connection: " + reason;
        }
        case CURLE_GOT_NOTHING:
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
            return "the server closed the connection without an answer (" + text + ")";
        default:
            return std::string(step) + " failed: " + text;
    }
}

AddressProbe::Time difference(const AddressProbe::Time& earlier, const AddressProbe::Time& later) {
    return earlier && later ? AddressProbe::Time(std::max(*later - *earlier, milliseconds(0))) : std::nullopt;
}

void takeOutcome(Connection& connection, CURLcode code, bool isTls, AddressProbe& probe) {
    const auto connected = connection.timeOf(CURLINFO_CONNECT_TIME_T);
    const auto secured = isTls ? connection.timeOf(CURLINFO_APPCONNECT_TIME_T) : connected;
    probe.connection = connected;
    probe.handshake = isTls ? difference(connected, secured) : std::nullopt;
    probe.connectedTo = connection.peer();
    probe.status = static_cast<int>(connection.numberOf(CURLINFO_RESPONSE_CODE));
    if (isTls && secured) {
        probe.tls = tlsOf(connection);
    }
    if (probe.status > 0) {
        probe.answer = difference(secured, connection.timeOf(CURLINFO_STARTTRANSFER_TIME_T));
    } else {
        probe.failure = code == CURLE_OK ? "the answer is not HTTP" : failureOf(connection, code, probe, isTls);
    }
}

void initialiseLibrary() {
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (initialised != CURLE_OK) {
        throw std::runtime_error("The network library cannot be initialised.");
    }
}

}  // namespace

AddressProbe probeAddress(const std::string& origin, milliseconds limit) {
    using Clock = std::chrono::steady_clock;
    initialiseLibrary();
    AddressProbe probe;
    UrlRequest request;
    request.url = origin + "/";
    request.method = "HEAD";
    const auto address = CurlTransfer::addressOf(request);
    if (!address) {
        probe.failure = address.error().description;
        return probe;
    }
    const auto begin = Clock::now();
    AddressList found;
    if (!isNumericHost(address->host)) {
        const auto answer = lookUp(address->host, limit);
        if (!answer || answer->empty()) {
            probe.failure = "the name " + address->host +
                            (answer ? " could not be resolved" : " could not be resolved: the look-up timed out");
            return probe;
        }
        found = *answer;
        probe.lookUp = std::chrono::round<milliseconds>(Clock::now() - begin);
    }
    const auto left = limit - std::chrono::duration_cast<milliseconds>(Clock::now() - begin);
    Connection connection(*address, found, std::max(left, milliseconds(1)));
    takeOutcome(connection, connection.request(), address->origin.starts_with("https:"), probe);
    if (probe.tls) {
        Connection trusting(*address, found, limit);
        findTrust(trusting, *probe.tls);
    }
    return probe;
}

}  // namespace sentrova::platform
