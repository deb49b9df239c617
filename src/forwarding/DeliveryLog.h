// The log lines about the answer to a delivery, which are the same with and without the durable mode.

#pragma once

#include "forwarding/TransportEngine.h"
#include "foundation/net/UrlSession.h"
#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

#include <cstdint>
#include <optional>

namespace sentrova::DeliveryLog {

// The answer's body and status. Returns the status, or 0 if there is no answer.
std::int64_t answered(const std::optional<Data>& body, const std::optional<UrlResponse>& response);
// The body of the answer to a delivery that succeeded.
void succeeded(const std::optional<Data>& body);
// Why a delivery failed, with its address.
void failed(const TransportEngine& engine, const std::optional<UrlResponse>& response,
            const std::optional<Error>& error);

}  // namespace sentrova::DeliveryLog
