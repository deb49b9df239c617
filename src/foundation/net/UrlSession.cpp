#include "foundation/net/UrlSession.h"

#include <algorithm>

namespace sentrova {

void UrlRequest::setHeader(const std::string& name, const std::string& value) {
    const auto found = std::ranges::find(headers, name, &std::pair<std::string, std::string>::first);
    if (found != headers.end()) {
        found->second = value;
    } else {
        headers.emplace_back(name, value);
    }
}

namespace {

const char* describe(UrlErrorCode code) {
    switch (code) {
        case UrlErrorCode::badUrl:
            return "bad URL";
        case UrlErrorCode::timedOut:
            return "The request timed out.";
        case UrlErrorCode::unsupportedUrl:
            return "unsupported URL";
        case UrlErrorCode::cannotFindHost:
            return "A server with the specified hostname could not be found.";
        case UrlErrorCode::cannotConnectToHost:
            return "Could not connect to the server.";
        case UrlErrorCode::dataLengthExceedsMaximum:
            return "The resource exceeds the maximum size.";
        case UrlErrorCode::networkConnectionLost:
            return "The network connection was lost.";
        case UrlErrorCode::badServerResponse:
            return "There was a bad response from the server.";
        case UrlErrorCode::secureConnectionFailed:
            return "An SSL error has occurred and a secure connection to the server cannot be made.";
        case UrlErrorCode::unknown:
            break;
    }
    return "unknown error";
}

}  // namespace

Error urlError(UrlErrorCode code) {
    return {kUrlErrorDomain, static_cast<std::int64_t>(code), describe(code)};
}

}  // namespace sentrova
