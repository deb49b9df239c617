// One exchange of a CurlUrlSession: what is to be sent, the handle that sends it, and what has come of it.

#pragma once

#include "foundation/net/UrlSession.h"
#include "foundation/time/Clock.h"
#include "platform/curl/HostAddresses.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <curl/curl.h>

namespace sentrova::platform {

// Made on any thread, then used on the network thread alone.
class CurlTransfer {
  public:
    // Never null.
    using Body = std::shared_ptr<const std::string>;

    // What a transfer needs of its session. Called on the network thread, also from within the network library.
    class Session {
      public:
        virtual ~Session() = default;
        // The monotonic time at which the network thread last woke up.
        virtual Clock::Monotonic now() const = 0;
    };

    struct Limits {
        std::size_t maximumAnswer;
        std::chrono::seconds totalTime;
    };

    // What the completion is told.
    struct Outcome {
        std::optional<Data> data;
        std::optional<UrlResponse> response;
        std::optional<Error> error;
    };

    struct Address {
        std::string url;
        std::string host;
        std::string port;
        // Scheme, host and port: what shares its connections.
        std::string origin;
    };

    // Where the request goes. Fails when it cannot be sent: on a URL that does not parse, on a scheme other than http
    // and https, and on a method or a header that would break out of its line.
    static Result<Address> addressOf(const UrlRequest& request);

    CurlTransfer(Address address, UrlRequest request, Body body, UrlSession::Completion completion,
                 const Limits& limits);
    CurlTransfer(const CurlTransfer&) = delete;
    CurlTransfer& operator=(const CurlTransfer&) = delete;
    // The handle must have left the multi handle.
    ~CurlTransfer() = default;

    std::uint64_t id() const { return id_; }
    const std::string& host() const { return address_.host; }
    const std::string& origin() const { return address_.origin; }
    const std::shared_ptr<const UrlSession::Completion>& completion() const { return completion_; }

    // Its time begins to run. The session must outlive the transfer.
    void comeToTurn(Session& session);
    // Makes the handle to be driven, which points back here by CURLOPT_PRIVATE; to be called once. Connects to one of
    // the addresses, tried in their order; none for a numeric host. Throws std::runtime_error when the library cannot
    // do what is asked of it.
    CURL* begin(const AddressList& addresses);
    // To be told when the handle has come to its end and has been removed.
    void ended(CURLcode code);
    // The handle while it is being driven, else null.
    CURL* underWay() const { return underWay_ ? handle_.get() : nullptr; }
    // Whether it has several addresses to try and is connected to none yet.
    bool isTryingAddresses() const { return underWay_ && timesSent_ == 0 && addressCount_ > 1; }
    // The address that the exchange was connected to last; empty when it was to none.
    std::string connectedAddress() const;

    // What has come of it; to be asked after the end.
    Outcome& outcome() { return outcome_; }

    // When it will have timed out, unless it makes progress before.
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

    // The library's callbacks, with the transfer as their last or first argument.
    static int aboutToSend(void* self, char*, char*, int, int);
    static int progressed(void* self, curl_off_t, curl_off_t received, curl_off_t, curl_off_t sent);
    static std::size_t receivedHeader(char* line, std::size_t size, std::size_t count, void* self);
    static std::size_t receivedBody(char* bytes, std::size_t size, std::size_t count, void* self);

    const std::uint64_t id_;
    const Address address_;
    const UrlRequest request_;
    const Body body_;
    const Limits limits_;
    // Shared, so that it is not lost where handing it to the delegate queue fails.
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
    bool tooLong_ = false;
    Data answer_;
    Outcome outcome_;
};

}  // namespace sentrova::platform
