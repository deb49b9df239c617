#include "forwarding/DeliveryLog.h"

#include "core/LogSource.h"
#include "core/Secrets.h"
#include "foundation/formats/Json.h"

#include <string>

namespace sentrova::DeliveryLog {

namespace {
constexpr LogSource kTraffic("EventForwarder", LogCategory::Communication);
}  // namespace

std::int64_t answered(const std::optional<Data>& body, const std::optional<UrlResponse>& response) {
    if (LogSource::isWritten(LogLevel::Debug)) {
        kTraffic.debug("EventForwarder DATA= {}", Secrets::maskedBody(body));
    }
    const auto status = response ? response->statusCode : 0;
    kTraffic.debug("response status code: {}", status);
    return status;
}

void succeeded(const std::optional<Data>& body) {
    if (LogSource::isWritten(LogLevel::Info)) {
        const auto parsed = Json::parse(body ? std::string(body->begin(), body->end()) : std::string());
        kTraffic.info("response={}", parsed ? Secrets::masked(*parsed) : Value());
    }
}

void failed(const TransportEngine& engine, const std::optional<UrlResponse>& response,
            const std::optional<Error>& error) {
    kTraffic.error("{}", error ? error->description : "(null)");
    kTraffic.error("The delivery failed at {}", engine.describeFailure(response, error));
}

}  // namespace sentrova::DeliveryLog
