// HTTP requests, asynchronously. The interface of the agent's session.

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
    // In the order in which they were set; a name that is set again keeps its place. The "Content-Length" sent is the
    // body's true length in every case.
    std::vector<std::pair<std::string, std::string>> headers;
    // How long the exchange may make no progress.
    std::chrono::seconds timeout{60};

    void setHeader(const std::string& name, const std::string& value);
};

struct UrlResponse {
    std::int64_t statusCode = 0;
};

inline constexpr const char* kUrlErrorDomain = "NSURLErrorDomain";

// The platform's codes within kUrlErrorDomain.
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

// The error of that code, described in a sentence for people.
Error urlError(UrlErrorCode code);

class UrlSession {
  public:
    // What came of a request: an answer with its body, or an error and neither. Called once, on the session's delegate
    // queue, one completion after another.
    using Completion = std::function<void(const std::optional<Data>& data, const std::optional<UrlResponse>& response,
                                          const std::optional<Error>& error)>;

    virtual ~UrlSession() = default;

    // Starts sending the body with the request. Returns at once, also when the request cannot be sent: that, too, is
    // told to the completion. Throws when the session cannot take the request; the completion is never called then. A
    // redirect is an answer like any other; it is not followed.
    virtual void uploadTask(const UrlRequest& request, std::string body, Completion completionHandler) = 0;

    // The same for a body that the caller keeps as well: a session that can does without a copy of it.
    virtual void uploadShared(const UrlRequest& request, const std::shared_ptr<const std::string>& body,
                              Completion completionHandler) {
        uploadTask(request, *body, std::move(completionHandler));
    }
};

}  // namespace sentrova
