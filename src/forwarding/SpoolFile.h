// What both spools ask about one of their files.

#pragma once

#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace sentrova::SpoolFile {

// What a batch consists of.
struct Content {
    std::uint64_t events = 0;
    // The time of the last event's record, in seconds since 1970.
    std::optional<std::int64_t> newest;
};
// Fast for a batch that this agent has made; any other is parsed. A text that is no batch has no events.
Content contentOf(std::string_view batch);

// All events of a batch. Fails with the reason if the text is no batch.
Result<Array> eventsOf(std::string_view batch);

// A cheap check: the server must not receive a text that cannot be a batch of the spool.
bool looksLikeBatch(std::string_view content);

// The prefix of an undelivered text that was found to be no JSON array.
inline constexpr std::string_view kUndeliveredPrefix = "undelivered_";

// Whether a file of that name stays in the spool's folder for the administrator, and is not sent.
bool isKept(std::string_view name);

// Whether a file could not be read because of a temporary shortage, unlike a damaged or forbidden file.
bool isShortage(const Error& error);

}  // namespace sentrova::SpoolFile
