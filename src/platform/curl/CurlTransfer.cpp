#include "platform/curl/CurlTransfer.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <stdexcept>
#include <string_view>

namespace sentrova::platform {

namespace {

// How often a request is sent. The library sends it again by itself if the server has closed the kept-alive connection.
// The server may have read the request before it closed, so each repetition may deliver the request twice. Therefore
// aboutToSend allows one repetition.
constexpr int kMostSendings = 2;

// The size of the library's send buffer. A larger buffer takes more memory while a body is sent, but needs fewer system
// calls and wake-ups of the receiver. With TLS, a buffer counts as progress only when it is sent completely. So it is
// smaller there, for slow lines.
constexpr std::size_t kSmallestPortion = 16 * 1024;
constexpr std::size_t kLargestPortion = 512 * 1024;
constexpr std::size_t kLargestTlsPortion = 64 * 1024;

std::uint64_t nextId() {
    static std::atomic<std::uint64_t> last{0};
    return ++last;
}

CurlTransfer& transferOf(void* self) {
    return *static_cast<CurlTransfer*>(self);
}

bool isToken(std::string_view text) {
    constexpr std::string_view kMarks = "!#$%&'*+-.^_`|~";
    return !text.empty() && std::ranges::all_of(text, [&](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               kMarks.find(c) != std::string_view::npos;
    });
}

bool fitsOnALine(std::string_view text) {
    return text.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

bool isSendable(const UrlRequest& request) {
    return isToken(request.method) && std::ranges::all_of(request.headers, [](const auto& header) {
               return isToken(header.first) && fitsOnALine(header.second);
           });
}

// The value of the line if it is that of a "Retry-After" header.
std::optional<std::string_view> retryAfterIn(std::string_view line) {
    const auto colon = std::min(line.find(':'), line.size());
    const bool isIt = curl_strequal(std::string(line.substr(0, colon)).c_str(), "Retry-After") != 0;
    return isIt && colon < line.size() ? std::optional(line.substr(colon + 1)) : std::nullopt;
}

// The wait that the value of a "Retry-After" header asks for (RFC 9110, section 10.2.3).
std::optional<std::chrono::seconds> retryAfterOf(std::string_view value, Date now) {
    constexpr std::string_view kSpace = " \t\r\n";
    constexpr std::int64_t kLongest = std::chrono::seconds(UrlResponse::kLongestRetryAfter).count();
    const auto begin = value.find_first_not_of(kSpace);
    if (begin == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string text(value.substr(begin, value.find_last_not_of(kSpace) + 1 - begin));
    std::int64_t seconds = 0;
    if (std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; })) {
        const bool fits = std::from_chars(text.data(), text.data() + text.size(), seconds).ec == std::errc();
        seconds = fits ? seconds : kLongest;
    } else {
        // Every form of an HTTP date begins with the day of the week.
        const bool isDate = (text[0] >= 'A' && text[0] <= 'Z') || (text[0] >= 'a' && text[0] <= 'z');
        const auto date = isDate ? curl_getdate(text.c_str(), nullptr) : -1;
        if (date == -1) {
            return std::nullopt;
        }
        seconds = static_cast<std::int64_t>(date) - epochSeconds(now);
    }
    return std::chrono::seconds(std::clamp<std::int64_t>(seconds, 0, kLongest));
}

UrlErrorCode errorCodeFor(CURLcode code) {
    switch (code) {
        case CURLE_URL_MALFORMAT:
            return UrlErrorCode::badUrl;
        case CURLE_COULDNT_RESOLVE_HOST:
            return UrlErrorCode::cannotFindHost;
        case CURLE_COULDNT_CONNECT:
            return UrlErrorCode::cannotConnectToHost;
        case CURLE_OPERATION_TIMEDOUT:
            return UrlErrorCode::timedOut;
        case CURLE_GOT_NOTHING:
        case CURLE_PARTIAL_FILE:
        case CURLE_SEND_ERROR:
        case CURLE_RECV_ERROR:
            return UrlErrorCode::networkConnectionLost;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_INVALIDCERTSTATUS:
        case CURLE_SSL_SHUTDOWN_FAILED:
        case CURLE_SSL_CLIENTCERT:
        case CURLE_PEER_FAILED_VERIFICATION:
            return UrlErrorCode::secureConnectionFailed;
        case CURLE_UNSUPPORTED_PROTOCOL:  // the answer's protocol; addressOf has checked the scheme of the URL
        case CURLE_WEIRD_SERVER_REPLY:
            return UrlErrorCode::badServerResponse;
        default:
            return UrlErrorCode::unknown;
    }
}

}  // namespace

CurlTransfer::CurlTransfer(Address address, UrlRequest request, Body body, UrlSession::Completion completion,
                           const Limits& limits)
    : id_(nextId()),
      address_(std::move(address)),
      request_(std::move(request)),
      body_(std::move(body)),
      limits_(limits),
      completion_(std::make_shared<const UrlSession::Completion>(std::move(completion))) {}

Result<CurlTransfer::Address> CurlTransfer::addressOf(const UrlRequest& request) {
    if (!isSendable(request)) {
        return Error{kUrlErrorDomain, static_cast<std::int64_t>(UrlErrorCode::unknown),
                     "The request's method or one of its headers cannot be sent."};
    }
    const std::unique_ptr<CURLU, void (*)(CURLU*)> parsed(curl_url(), curl_url_cleanup);
    // Refuses a user name in the URL: only a damaged host name could look like one.
    constexpr unsigned kStrictness = CURLU_NON_SUPPORT_SCHEME | CURLU_DISALLOW_USER;
    if (!fitsOnALine(request.url) ||
        curl_url_set(parsed.get(), CURLUPART_URL, request.url.c_str(), kStrictness) != CURLUE_OK) {
        return urlError(UrlErrorCode::badUrl);
    }
    const auto part = [&](CURLUPart which) {
        char* text = nullptr;
        curl_url_get(parsed.get(), which, &text, CURLU_DEFAULT_PORT);
        const std::unique_ptr<char, void (*)(void*)> owned(text, curl_free);
        return std::string(text ? text : "");
    };
    const std::string scheme = part(CURLUPART_SCHEME);
    if (!curl_strequal(scheme.c_str(), "http") && !curl_strequal(scheme.c_str(), "https")) {
        return urlError(UrlErrorCode::unsupportedUrl);
    }
    const std::string host = part(CURLUPART_HOST);
    const std::string port = part(CURLUPART_PORT);
    return Address{part(CURLUPART_URL), host, port, scheme + "://" + host + ":" + port};
}

CurlTransfer::HeaderList CurlTransfer::headerList() const {
    HeaderList list;
    const auto append = [&](const std::string& line) {
        auto* const longer = curl_slist_append(list.get(), line.c_str());
        if (!longer) {
            throw std::bad_alloc();
        }
        static_cast<void>(list.release());
        list.reset(longer);
    };
    const auto isGiven = [this](const char* name) {
        return std::ranges::any_of(request_.headers,
                                   [&](const auto& header) { return curl_strequal(header.first.c_str(), name); });
    };
    for (const auto& [name, value] : request_.headers) {
        const std::string sent = curl_strequal(name.c_str(), "Content-Length") ? std::to_string(body_->size()) : value;
        // In the library's syntax, "Name;" sends a header without a value, and "Name:" sends no such header.
        append(sent.empty() ? name + ";" : name + ": " + sent);
    }
    for (const char* const unasked : {"Accept", "Content-Type", "Expect"}) {
        if (!isGiven(unasked)) {
            append(std::string(unasked) + ":");
        }
    }
    return list;
}

CurlTransfer::HeaderList CurlTransfer::resolveList(const AddressList& addresses) const {
    if (addresses.empty()) {
        return nullptr;
    }
    HeaderList list(curl_slist_append(nullptr, resolveEntry(address_.host, address_.port, addresses).c_str()));
    if (!list) {
        throw std::bad_alloc();
    }
    return list;
}

template <class T>
void CurlTransfer::set(CURLoption option, T value) {
    if (const auto code = curl_easy_setopt(handle_.get(), option, value); code != CURLE_OK) {
        throw std::runtime_error("option " + std::to_string(option) + ": " + curl_easy_strerror(code));
    }
}

void CurlTransfer::comeToTurn(Session& session) {
    session_ = &session;
    noteProgress();
    cameToTurn_ = lastProgress_;
}

CURL* CurlTransfer::begin(const AddressList& addresses) {
    resolved_ = resolveList(addresses);
    addressCount_ = addresses.size();
    handle_.reset(curl_easy_init());
    if (!handle_) {
        throw std::bad_alloc();
    }
    setUpRequest();
    setUpCallbacks();
    setUpSecurity();
    underWay_ = true;
    return handle_.get();
}

void CurlTransfer::setUpRequest() {
    headers_ = headerList();
    set(CURLOPT_URL, address_.url.c_str());
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    // An empty name means no proxy, even if the environment names one.
    set(CURLOPT_PROXY, "");
    set(CURLOPT_POST, 1L);
    set(CURLOPT_CUSTOMREQUEST, request_.method.c_str());
    set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body_->size()));
    set(CURLOPT_POSTFIELDS, body_->c_str());
    const bool isTls = curl_strnequal(address_.origin.c_str(), "https:", 6) != 0;
    const auto largest = isTls ? kLargestTlsPortion : kLargestPortion;
    set(CURLOPT_UPLOAD_BUFFERSIZE, static_cast<long>(std::clamp(body_->size(), kSmallestPortion, largest)));
    set(CURLOPT_HTTPHEADER, headers_.get());
    set(CURLOPT_FOLLOWLOCATION, 0L);
    set(CURLOPT_RESOLVE, resolved_.get());
    // The library tries the addresses of a family one after another. Each gets half of the remaining time, the last one
    // all of it. So the time for connecting must be the time until the session gives up the request.
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(due() - session_->now());
    set(CURLOPT_CONNECTTIMEOUT_MS, std::max(static_cast<long>(left.count()), 1L));
    set(CURLOPT_NOSIGNAL, 1L);
}

void CurlTransfer::setUpCallbacks() {
    set(CURLOPT_PRIVATE, this);
    set(CURLOPT_PREREQFUNCTION, &CurlTransfer::aboutToSend);
    set(CURLOPT_PREREQDATA, this);
    set(CURLOPT_NOPROGRESS, 0L);
    set(CURLOPT_XFERINFOFUNCTION, &CurlTransfer::progressed);
    set(CURLOPT_XFERINFODATA, this);
    set(CURLOPT_HEADERFUNCTION, &CurlTransfer::receivedHeader);
    set(CURLOPT_HEADERDATA, this);
    set(CURLOPT_WRITEFUNCTION, &CurlTransfer::receivedBody);
    set(CURLOPT_WRITEDATA, this);
}

void CurlTransfer::setUpSecurity() {
    // Accepts any server certificate and offers no client certificate.
    set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    set(CURLOPT_SSL_VERIFYPEER, 0L);
    set(CURLOPT_SSL_VERIFYHOST, 0L);
    set(CURLOPT_CAINFO, static_cast<const char*>(nullptr));
    set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
}

int CurlTransfer::aboutToSend(void* self, char*, char*, int, int) {
    auto& transfer = transferOf(self);
    transfer.noteProgress();
    return ++transfer.timesSent_ > kMostSendings ? CURL_PREREQFUNC_ABORT : CURL_PREREQFUNC_OK;
}

int CurlTransfer::progressed(void* self, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent) {
    auto& transfer = transferOf(self);
    if (const auto moved = received + sent; moved != transfer.bytesMoved_) {
        transfer.bytesMoved_ = moved;
        transfer.noteProgress();
    }
    return 0;
}

std::size_t CurlTransfer::receivedHeader(char* line, std::size_t size, std::size_t count, void* self) {
    auto& transfer = transferOf(self);
    transfer.noteProgress();
    const std::string_view text(line, size * count);
    if (text.starts_with("HTTP/")) {
        transfer.headComplete_ = false;
        transfer.retryAfter_.reset();
    } else if (text == "\r\n" || text == "\n") {
        transfer.headComplete_ = true;
    } else if (const auto value = retryAfterIn(text); value && !transfer.headComplete_) {
        transfer.retryAfter_ = retryAfterOf(*value, transfer.session_->wallTime());
    }
    return text.size();
}

std::size_t CurlTransfer::receivedBody(char* bytes, std::size_t size, std::size_t count, void* self) {
    auto& transfer = transferOf(self);
    const std::string_view text(bytes, size * count);
    if (text.size() > transfer.limits_.maximumAnswer - transfer.answer_.size()) {
        transfer.tooLong_ = true;
        return CURL_WRITEFUNC_ERROR;
    }
    transfer.answer_.insert(transfer.answer_.end(), text.begin(), text.end());
    return text.size();
}

void CurlTransfer::ended(CURLcode code) {
    underWay_ = false;
    hasEnded_ = true;
    outcome_ = answerOrError(code);
    isHeld_ = demandsLogin(outcome_);
}

// A transfer ends with an answer or with an error, never with both:
// - tooLong_: the body is longer than maximumAnswer. Error dataLengthExceedsMaximum, whatever the code.
// - CURLE_OK with complete headers: the answer, whatever its status.
// - CURLE_OK without the empty line after the headers: the connection ended early, but the library takes that for the
//   end of the headers. Error networkConnectionLost.
// - CURLE_ABORTED_BY_CALLBACK: aboutToSend has refused to send the request a third time, because two connections were
//   lost. Error networkConnectionLost.
// - Any other code: the error from errorCodeFor.
// The session itself ends a transfer that is overdue (timedOut), whose host is not found (cannotFindHost), or that
// could not be started (unknown).
CurlTransfer::Outcome CurlTransfer::answerOrError(CURLcode code) const {
    if (tooLong_) {
        return {{}, {}, urlError(UrlErrorCode::dataLengthExceedsMaximum)};
    }
    if ((code == CURLE_OK && !headComplete_) || code == CURLE_ABORTED_BY_CALLBACK) {
        return {{}, {}, urlError(UrlErrorCode::networkConnectionLost)};
    }
    if (code != CURLE_OK) {
        return {{}, {}, urlError(errorCodeFor(code))};
    }
    long status = 0;
    curl_easy_getinfo(handle_.get(), CURLINFO_RESPONSE_CODE, &status);
    return {answer_, UrlResponse{status, retryAfter_}, {}};
}

bool CurlTransfer::demandsLogin(const Outcome& outcome) const {
    constexpr unsigned long kKnownSchemes = CURLAUTH_BASIC | CURLAUTH_DIGEST | CURLAUTH_NTLM | CURLAUTH_NEGOTIATE;
    const auto status = outcome.response ? outcome.response->statusCode : 0;
    if (status != 401 && status != 407) {
        return false;
    }
    long offered = 0;
    curl_easy_getinfo(handle_.get(), status == 401 ? CURLINFO_HTTPAUTH_AVAIL : CURLINFO_PROXYAUTH_AVAIL, &offered);
    return (static_cast<unsigned long>(offered) & kKnownSchemes) != 0;
}

std::string CurlTransfer::connectedAddress() const {
    char* address = nullptr;
    return handle_ && curl_easy_getinfo(handle_.get(), CURLINFO_PRIMARY_IP, &address) == CURLE_OK && address ? address
                                                                                                             : "";
}

Clock::Monotonic CurlTransfer::due() const {
    // A request's time-out is limited to the total time, so that the sum of a huge one does not overflow.
    return std::min(lastProgress_ + std::min(request_.timeout, limits_.totalTime), cameToTurn_ + limits_.totalTime);
}

}  // namespace sentrova::platform
