// The interface through which the agent sends HTTP requests asynchronously.

#pragma once

#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sentrova {

struct UrlRequest {
    std::string url;
    std::string method = "GET";
    // In the order in which they were set. A header that is set again keeps its place. "Content-Length" is always sent
    // with the actual length of the body.
    std::vector<std::pair<std::string, std::string>> headers;
    // The longest time that the exchange may go without progress.
    std::chrono::seconds timeout{60};

    void setHeader(const std::string& name, const std::string& value);
};

struct UrlResponse {
    // A longer wait counts as this.
    static constexpr std::chrono::hours kLongestRetryAfter{24};

    std::int64_t statusCode = 0;
    // The header "Retry-After": how long the server asks to wait before the next request. Seconds, or an HTTP date
    // measured by the wall clock; 0 for a date in the past. Absent without the header, or if it is neither.
    std::optional<std::chrono::seconds> retryAfter;
};

inline constexpr const char* kUrlErrorDomain = "NSURLErrorDomain";

// The platform's error codes within kUrlErrorDomain.
enum class UrlErrorCode : std::int64_t {
    badUrl = -1000,
    timedOut = -1001,
    unsupportedUrl = -1002,
    cannotFindHost = -1003,
    cannotConnectToHost = -1004,
    dataLengthExceedsMaximum = -1103,
    networkConnectionLost = -1005,
    badServerResponse = -1011,
    secureConnectionFailed = -1200,
    unknown = -1,
};

// The error with the code and a readable description.
Error urlError(UrlErrorCode code);

class UrlSession {
  public:
    // Receives either an answer with its body, or an error. Called exactly once per request, on the session's delegate
    // queue, one completion after another. Not called if the session is destroyed first.
    using Completion = std::function<void(const std::optional<Data>& data, const std::optional<UrlResponse>& response,
                                          const std::optional<Error>& error)>;

    virtual ~UrlSession() = default;

    // Queues the request with its body and returns at once. The completion also receives the error of a request that
    // cannot be sent. If this function throws, the session has not accepted the request and never calls the completion.
    // A redirect is an answer like any other and is not followed. Safe from any thread.
    virtual void uploadTask(const UrlRequest& request, std::string body, Completion completionHandler) = 0;

    // The same for a body that the caller keeps too. A session may override it to avoid copying the body.
    virtual void uploadShared(const UrlRequest& request, const std::shared_ptr<const std::string>& body,
                              Completion completionHandler) {
        uploadTask(request, *body, std::move(completionHandler));
    }
};

}  // namespace sentrova
