#include "collection/RecordEvents.h"

#include "collection/Event.h"
#include "collection/bsm/TokenReader.h"
#include "core/LogSource.h"
#include "foundation/value/Text.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

namespace sentrova {

namespace {

constexpr LogSource kLog("EventCollector");

// Copies a text of a record, because the event stores it. Absent if it is not UTF-8.
std::optional<std::string> stored(std::string_view text) {
    return isValidUtf8(text) ? std::optional(std::string(text)) : std::nullopt;
}

Event eventOf(const bsm::HeaderToken& header, EventContext& context) {
    Event event(context);
    event.version = header.version;
    event.eventType = header.eventType;
    event.eventModifier = header.eventModifier;
    event.timeStampInMs = header.seconds;
    return event;
}

void setSubject(const bsm::SubjectToken& token, Event& event) {
    event.auditId = token.auditId;
    event.effectiveUserID = token.effectiveUserId;
    event.effectiveGroupID = token.effectiveGroupId;
    event.realUserID = token.realUserId;
    event.realGroupID = token.realGroupId;
    event.processID = token.processId;
    event.SessionID = token.sessionId;
    event.port = token.port;
    event.addr = token.address;
}

void setField(const bsm::Token& token, Event& event) {
    if (const auto* subject = std::get_if<bsm::SubjectToken>(&token.content)) {
        setSubject(*subject, event);
    } else if (const auto* result = std::get_if<bsm::Return32Token>(&token.content)) {
        event.ret = result->value;
        event.status = result->status;
    } else if (const auto* text = std::get_if<bsm::TextToken>(&token.content)) {
        event.text = stored(text->text);
    } else if (const auto* identity = std::get_if<bsm::IdentityToken>(&token.content)) {
        event.signing_id = stored(identity->signingId);
    }
}

}  // namespace

RecordEvents::RecordEvents(Wanted wanted, Deliver deliver, EventContext& context, LeaveOut leaveOut)
    : wanted_(std::move(wanted)), deliver_(std::move(deliver)), context_(context), leaveOut_(std::move(leaveOut)) {}

void RecordEvents::read(std::span<const std::uint8_t> record) {
    bsm::TokenReader tokens(record);
    // The event is only created once the record is known to be wanted. Each record is judged once: a wanted record
    // stays wanted even if another reader changes what is wanted meanwhile.
    std::optional<bsm::HeaderToken> header;
    std::optional<Event> event;
    bool isRead = false;
    while (tokens.left() > 0 && tokens.au_fetch_tok() == 0) {
        if (header && !event && !wanted_(header->eventType, header->seconds)) {
            return;
        }
        isRead = true;
        const auto& token = tokens.token();
        if (const auto* begun = std::get_if<bsm::HeaderToken>(&token.content)) {
            header = *begun;
            event.reset();
        } else if (header) {
            if (!event) {
                event = eventOf(*header, context_);
            }
            if (std::holds_alternative<bsm::TrailerToken>(token.content)) {
                finish(*event);
                header.reset();
            } else {
                setField(token, *event);
            }
        }
    }
    // A record without its trailer, or without anything that can be read.
    if (leaveOut_ && (header || !isRead)) {
        leaveOut_({header ? std::optional(header->eventType) : std::nullopt, header ? header->seconds : 0, {}});
    }
}

void RecordEvents::finish(Event& event) {
    if (auto dictionary = event.parsedEvent()) {
        deliver_(*std::move(dictionary));
        ++events_;
    } else {
        if (LogSource::isWritten(LogLevel::Info)) {
            kLog.info("Error/Exclusion in {}", event.description());
        }
        ++excluded_;
        if (leaveOut_) {
            leaveOut_({event.eventType, event.timeStampInMs, event.takeExclusion()});
        }
    }
}

}  // namespace sentrova
