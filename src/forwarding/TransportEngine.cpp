#include "forwarding/TransportEngine.h"

#include "core/Configuration.h"
#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "foundation/run/Current.h"
#include "foundation/value/Text.h"

#include <numeric>
#include <stdexcept>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("TransportEngine");
constexpr LogSource kTraffic = kLog.in(LogCategory::Communication);

constexpr std::chrono::seconds kRequestTimeout{30};

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
        transport_.session().uploadShared(request, body, std::move(andCompletionHandler));
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
    const auto address = std::accumulate(urlComp_.begin(), urlComp_.end(), std::string());
    return error ? fmt::format("{}: {}", address, error->description)
                 : fmt::format("{}: answered with HTTP status {}", address, response ? response->statusCode : 0);
}

}  // namespace sentrova
