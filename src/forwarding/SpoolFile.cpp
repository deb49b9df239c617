#include "forwarding/SpoolFile.h"

#include "forwarding/DurableSpool.h"
#include "foundation/formats/Json.h"
#include "foundation/value/Text.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <system_error>

namespace sentrova {

namespace {

// How each event begins that this agent has made. A text within an event has its quotation marks escaped, so neither
// this nor kTime occurs there.
constexpr std::string_view kBeginning = "{\"record_version\":";
constexpr std::string_view kTime = "\"record_time\":";

SpoolFile::Content parsedContentOf(std::string_view batch) {
    const auto parsed = Json::parse(batch, {batch.size(), 512});
    const auto* const events = parsed ? parsed->array() : nullptr;
    if (!events || events->empty()) {
        return {};
    }
    SpoolFile::Content content{.events = events->size(), .newest = {}};
    const auto* const last = events->back().dictionary();
    if (last && (*last)["record_time"].isNumber()) {
        content.newest = (*last)["record_time"].integerValue();
    }
    return content;
}

}  // namespace

SpoolFile::Content SpoolFile::contentOf(std::string_view batch) {
    if (!batch.starts_with('[') || !batch.substr(1).starts_with(kBeginning)) {
        return parsedContentOf(batch);
    }
    Content content;
    for (auto at = batch.find(kBeginning); at != std::string_view::npos;
         at = batch.find(kBeginning, at + kBeginning.size())) {
        ++content.events;
    }
    if (const auto at = batch.rfind(kTime); at != std::string_view::npos) {
        const auto number = batch.substr(at + kTime.size());
        std::int64_t time = 0;
        if (std::from_chars(number.data(), number.data() + number.size(), time).ec == std::errc()) {
            content.newest = time;
        }
    }
    return content;
}

Result<Array> SpoolFile::eventsOf(std::string_view batch) {
    auto parsed = Json::parse(batch, {batch.size(), 512});
    if (!parsed) {
        // Without the parser's own words.
        const auto& description = parsed.error().description;
        return Error{.domain = kCocoaErrorDomain, .description = description.substr(0, description.find(": "))};
    }
    auto* const events = parsed->array();
    if (!events || !std::ranges::all_of(*events, [](const auto& event) { return event.dictionary() != nullptr; })) {
        return Error{.domain = kCocoaErrorDomain, .description = "Not an array of events"};
    }
    return std::move(*events);
}

bool SpoolFile::looksLikeBatch(std::string_view content) {
    return content.starts_with('[') && content.ends_with(']') && isValidUtf8(content);
}

bool SpoolFile::isKept(std::string_view name) {
    return name.starts_with(kUndeliveredPrefix) || name.starts_with(DurableSpool::kAlteredPrefix) ||
           name.starts_with(DurableSpool::kRefusedPrefix);
}

bool SpoolFile::isShortage(const Error& error) {
    return error.code == EMFILE || error.code == ENFILE || error.code == ENOMEM;
}

}  // namespace sentrova
