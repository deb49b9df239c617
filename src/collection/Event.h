// One audit record: its fields as the tokens give them, and the event dictionary made from them.
//
// Making the event also decides whether it is reported. Some logon records only feed the login history, and events of
// users that the directory knows as local are excluded. Not thread-safe; parsedEvent may be called once per object.

#pragma once

#include "collection/EventContext.h"
#include "foundation/value/Value.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova {

// The event numbers that need special treatment.
struct AuditEventNumber {
    static constexpr std::uint16_t logout = 6153;
    static constexpr std::uint16_t lw_login = 45021;
    static constexpr std::uint16_t auth_user = 45023;
    static constexpr std::uint16_t ssauthint = 45026;
};

class Event {
  public:
    // The context must outlive the event.
    explicit Event(EventContext& context = EventContext::ofAgent()) : context_(&context) {}

    // All keys that an event may have, in their order in the dictionary.
    static std::span<const std::string_view> keys();

    // Fields of the identity token that the agent does not use.
    struct Signature {
        std::uint32_t signer_type = 0;
        std::uint8_t signing_id_truncated = 0;
        std::string team_id;
        std::uint8_t team_id_truncated = 0;
        std::vector<std::uint8_t> cdhash;
    };

    // From the header token. timeStampInMs is in whole seconds since 1970, despite its name.
    std::uint8_t version = 0;
    std::uint16_t eventType = 0;
    std::uint16_t eventModifier = 0;
    std::uint64_t timeStampInMs = 0;

    // From the subject token. `addr` is in network byte order, as in the record.
    std::uint32_t auditId = 0;
    std::uint32_t effectiveUserID = 0;
    std::uint32_t effectiveGroupID = 0;
    std::uint32_t realUserID = 0;
    std::uint32_t realGroupID = 0;
    std::uint32_t processID = 0;
    std::uint32_t SessionID = 0;
    std::uint64_t port = 0;
    std::uint32_t addr = 0;

    // From the return token: the value, and the error number in the audit format.
    std::uint32_t ret = 0;
    std::uint8_t status = 0;

    // From the text token: "" without a token, absent if its bytes are not UTF-8.
    std::optional<std::string> text = "";

    // From the identity token; absent without one.
    std::optional<std::string> signing_id;
    Signature signature;

    // Returns the event, or nothing if it must not be reported. In the agent's context, blocks for three seconds for a
    // Touch ID record in realtime mode.
    std::optional<Dictionary> parsedEvent();

    // Why parsedEvent returned nothing, in words for people, and the keys that were set before that was known.
    struct Exclusion {
        std::string_view reason;
        Dictionary keys;
    };
    // For one call, after parsedEvent returned nothing.
    Exclusion takeExclusion() { return std::move(exclusion_); }

    // The record's fields, for the log.
    std::string description() const;

  private:
    void GeneralEventParsing();
    void AdditionalEventChecks();
    void parseUserName(std::string_view separators);
    void checkSecurityAgent();
    void checkAuthentication();
    void checkDirectory();
    void addToLoginHistory(const Value& user) const;

    // Does nothing if the event is excluded. An empty value removes the key.
    void set(std::string_view key, Value&& value);
    Value get(std::string_view key) const;
    // The first reason stays.
    void exclude(std::string_view reason);

    EventContext* context_;
    std::optional<Dictionary> eventDict_ = Dictionary();
    Exclusion exclusion_;
};

}  // namespace sentrova
