// One request of a CurlUrlSession: its content, the curl handle that sends it, and its outcome.

#pragma once

#include "foundation/net/UrlSession.h"
#include "foundation/run/Clock.h"
#include "platform/curl/HostAddresses.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <curl/curl.h>

namespace sentrova::platform {

// Created on any thread, then used only on the network thread.
class CurlTransfer {
  public:
    // Never null.
    using Body = std::shared_ptr<const std::string>;

    // The session, as the transfer uses it. Called on the network thread, also by callbacks of the network library.
    class Session {
      public:
        virtual ~Session() = default;
        // The monotonic time at which the network thread last woke up.
        virtual Clock::Monotonic now() const = 0;
        virtual Date wallTime() const = 0;
    };

    struct Limits {
        // In bytes, without the headers.
        std::size_t maximumAnswer;
        std::chrono::seconds totalTime;
    };

    // The arguments of the completion: data and response, or an error.
    struct Outcome {
        std::optional<Data> data;
        std::optional<UrlResponse> response;
        std::optional<Error> error;
    };

    struct Address {
        std::string url;
        std::string host;
        std::string port;
        // "scheme://host:port". Requests with the same origin share connections.
        std::string origin;
    };

    // Parses the request's URL. Fails if the request cannot be sent: on a malformed URL, a scheme other than http and
    // https, or a method or header with characters that would end its line.
    static Result<Address> addressOf(const UrlRequest& request);

    CurlTransfer(Address address, UrlRequest request, Body body, UrlSession::Completion completion,
                 const Limits& limits);
    CurlTransfer(const CurlTransfer&) = delete;
    CurlTransfer& operator=(const CurlTransfer&) = delete;
    // The curl handle must not be in the multi handle any more.
    ~CurlTransfer() = default;

    std::uint64_t id() const { return id_; }
    const std::string& host() const { return address_.host; }
    const std::string& origin() const { return address_.origin; }
    const std::shared_ptr<const UrlSession::Completion>& completion() const { return completion_; }

    // Call it when a connection becomes free for the request: its time-outs begin now. The session must outlive the
    // transfer.
    void comeToTurn(Session& session);
    // Creates the curl handle for the multi handle; its CURLOPT_PRIVATE is this object. Call it once. `addresses` are
    // tried in their order; pass none for a numeric host. Throws std::runtime_error if the library refuses an option.
    CURL* begin(const AddressList& addresses);
    // Call it when the curl handle has ended and is removed from the multi handle.
    void ended(CURLcode code);
    // The curl handle between begin and ended; otherwise null.
    CURL* underWay() const { return underWay_ ? handle_.get() : nullptr; }
    // Whether the transfer has several addresses to try and is not connected yet.
    bool isTryingAddresses() const { return underWay_ && timesSent_ == 0 && addressCount_ > 1; }
    // The address of the last connection. Empty if there was no connection.
    std::string connectedAddress() const;

    bool hasEnded() const { return hasEnded_; }
    // Whether the answer demands a login: status 401 or 407 with a known scheme. The agent has no password for a server
    // and does not take the demand for an answer, so the transfer stays until it is due.
    bool isHeld() const { return isHeld_; }
    // Valid after ended.
    Outcome& outcome() { return outcome_; }

    // When the transfer times out, unless it makes progress before.
    Clock::Monotonic due() const;

  private:
    struct HandleDeleter {
        void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
    };
    struct ListDeleter {
        void operator()(curl_slist* list) const { curl_slist_free_all(list); }
    };
    using HeaderList = std::unique_ptr<curl_slist, ListDeleter>;

    HeaderList headerList() const;
    HeaderList resolveList(const AddressList& addresses) const;
    template <class T>
    void set(CURLoption option, T value);
    void setUpRequest();
    void setUpCallbacks();
    void setUpSecurity();

    void noteProgress() { lastProgress_ = session_->now(); }
    Outcome answerOrError(CURLcode code) const;
    bool demandsLogin(const Outcome& outcome) const;

    // Callbacks of the library. `self` is the transfer.
    static int aboutToSend(void* self, char*, char*, int, int);
    static int progressed(void* self, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent);
    static std::size_t receivedHeader(char* line, std::size_t size, std::size_t count, void* self);
    static std::size_t receivedBody(char* bytes, std::size_t size, std::size_t count, void* self);

    const std::uint64_t id_;
    const Address address_;
    const UrlRequest request_;
    const Body body_;
    const Limits limits_;
    // Shared, so that it is not lost if adding it to the delegate queue fails.
    const std::shared_ptr<const UrlSession::Completion> completion_;

    Session* session_ = nullptr;
    HeaderList headers_;
    HeaderList resolved_;
    std::size_t addressCount_ = 0;
    std::unique_ptr<CURL, HandleDeleter> handle_;
    bool underWay_ = false;
    Clock::Monotonic cameToTurn_;
    Clock::Monotonic lastProgress_;
    curl_off_t bytesMoved_ = 0;

    int timesSent_ = 0;
    bool headComplete_ = false;
    // From the headers received last.
    std::optional<std::chrono::seconds> retryAfter_;
    bool tooLong_ = false;
    bool hasEnded_ = false;
    bool isHeld_ = false;
    Data answer_;
    Outcome outcome_;
};

}  // namespace sentrova::platform
