#include "forwarding/TransportEngine.h"

#include "core/Configuration.h"
#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "forwarding/SpoolFile.h"
#include "foundation/run/Clock.h"
#include "foundation/run/Current.h"
#include "foundation/run/Unhandled.h"
#include "foundation/value/Text.h"

#include <numeric>
#include <stdexcept>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("TransportEngine");
constexpr LogSource kTraffic = kLog.in(LogCategory::Communication);

constexpr std::chrono::seconds kRequestTimeout{30};

// The kind under which a failed request is counted.
std::string_view kindOf(const std::optional<Error>& error) {
    if (!error) {
        return "http_status";
    }
    switch (static_cast<UrlErrorCode>(error->code)) {
        case UrlErrorCode::timedOut:
            return "timeout";
        case UrlErrorCode::cannotFindHost:
            return "resolve";
        case UrlErrorCode::cannotConnectToHost:
            return "connect";
        case UrlErrorCode::secureConnectionFailed:
            return "tls";
        case UrlErrorCode::networkConnectionLost:
            return "connection_lost";
        case UrlErrorCode::badUrl:
        case UrlErrorCode::unsupportedUrl:
            return "address";
        case UrlErrorCode::badServerResponse:
        case UrlErrorCode::dataLengthExceedsMaximum:
            return "answer";
        case UrlErrorCode::unknown:
            break;
    }
    return "other";
}

std::string describe(const std::string& address, const std::optional<UrlResponse>& response,
                     const std::optional<Error>& error) {
    return error ? fmt::format("{}: {}", address, error->description)
                 : fmt::format("{}: answered with HTTP status {}", address, response ? response->statusCode : 0);
}

// Notes the outcome of a request. `events` is the batch of a delivery, and null for another message.
void count(Statistics& statistics, const std::string& address, const std::string* events,
           const std::optional<UrlResponse>& response, const std::optional<Error>& error) {
    const auto now = Current<Clock>::get().epochSeconds();
    if (events) {
        statistics.deliveryEnded();
    }
    if (error || !response || response->statusCode != 200) {
        statistics.requestFailed(kindOf(error), describe(address, response, error), address, !error && response, now);
        return;
    }
    statistics.requestSucceeded(address, now);
    if (events) {
        const auto content = SpoolFile::contentOf(*events);
        statistics.addDelivered(content.events, content.newest);
    }
}

}  // namespace

TransportEngine::TransportEngine() : TransportEngine(Current<Transport>::get().addresses().current()) {}

TransportEngine::TransportEngine(const ServerAddress& address) : transport_(Current<Transport>::get()) {
    compose(address);
    kTraffic.info("TransportEngine isConnected {:d}", isConnected());
}

void TransportEngine::compose(const ServerAddress& address) {
    urlComp_ = {address.scheme, ":", "//", address.host, ":", fmt::format("{}", address.port)};
    baseURL_ = std::accumulate(urlComp_.begin(), urlComp_.end(), std::string());
}

bool TransportEngine::isConnected() {
    return Current<Transport>::get().isConnected();
}

void TransportEngine::setIsConnected(bool flag) {
    Current<Transport>::get().setIsConnected(flag);
}

void TransportEngine::tryOtherURL() {
    compose(transport_.addresses().next());
}

bool TransportEngine::sendMessageToServer(MessageType type, std::string andParameters,
                                          UrlSession::Completion andCompletionHandler) {
    return sendMessageToServer(type, std::make_shared<const std::string>(std::move(andParameters)),
                               std::move(andCompletionHandler));
}

bool TransportEngine::sendMessageToServer(MessageType type, const std::shared_ptr<const std::string>& andParameters,
                                          UrlSession::Completion andCompletionHandler,
                                          const std::string& idempotencyKey) {
    try {
        MsgConfiguration message;
        message.getMessageConfiguration(type);
        if (!message.method() || !message.URL()) {
            throw std::invalid_argument(fmt::format("unknown message type {}", static_cast<std::int64_t>(type)));
        }
        if (baseURL_.find(*message.URL()) == std::string::npos) {
            baseURL_ += *message.URL();
        }
        const auto body =
            isAscii(*andParameters)
                ? andParameters
                : std::make_shared<const std::string>(asciiLossy(*andParameters, Current<Encodings>::get()));
        UrlRequest request;
        if (isHostName(urlComp_[3])) {
            request.url = baseURL_;
        } else {
            // Without a URL the session fails the request, and the rotation moves to the next address.
            kLog.error("\"{}\" is not a valid host name; the request is not sent", urlComp_[3]);
        }
        request.method = *message.method();
        request.timeout = kRequestTimeout;
        request.setHeader("Content-Length", fmt::format("{}", body->size()));
        request.setHeader("Content-Type", "text/json");
        if (const auto accessKey = transport_.configuration().orgAccessKey()) {
            request.setHeader(std::string(GlobalConstants::ORG_ACCESS_KEY), *accessKey);
        }
        if (!idempotencyKey.empty()) {
            request.setHeader("Idempotency-Key", idempotencyKey);
        }
        const auto events = type == MessageType::eventDelivery ? andParameters : nullptr;
        auto& statistics = transport_.statistics();
        if (events) {
            statistics.deliveryBegan();
        }
        try {
            transport_.session().uploadShared(
                request, body,
                [&statistics, address = address(), events, completion = std::move(andCompletionHandler)](
                    const auto& data, const auto& response, const auto& error) {
                    runGuarded("TransportEngine", [&] { count(statistics, address, events.get(), response, error); });
                    completion(data, response, error);
                });
        } catch (...) {
            if (events) {
                statistics.deliveryEnded();
            }
            throw;
        }
        return true;
    } catch (const std::exception& exception) {
        kLog.error("{}", exception.what());
    } catch (...) {
        kLog.error("The session failed for an unknown reason");
    }
    return false;
}

std::string TransportEngine::describeFailure(const std::optional<UrlResponse>& response,
                                             const std::optional<Error>& error) const {
    return describe(address(), response, error);
}

std::string TransportEngine::address() const {
    return std::accumulate(urlComp_.begin(), urlComp_.end(), std::string());
}

}  // namespace sentrova
