// One audit record: its fields as the trail reader finds them in the tokens, and the event that they make.
//
// Turning a record into an event also decides whether it is reported at all: records of logon bookkeeping only feed the
// login history, and users that the directory knows as local are left out. For one thread, and once a record.

#pragma once

#include "foundation/value/Value.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sentrova {

// The numbers of the events that are treated in a way of their own.
struct AuditEventNumber {
    static constexpr std::uint16_t logout = 6153;
    static constexpr std::uint16_t lw_login = 45021;
    static constexpr std::uint16_t auth_user = 45023;
    static constexpr std::uint16_t ssauthint = 45026;
};

class Event {
  public:
    // Identity fields of the record layout that no part reads.
    struct Signature {
        std::uint32_t signer_type = 0;
        std::uint8_t signing_id_truncated = 0;
        std::string team_id;
        std::uint8_t team_id_truncated = 0;
        std::vector<std::uint8_t> cdhash;
    };

    // From the header token. The time is in whole seconds since 1970, in spite of its name.
    std::uint8_t version = 0;
    std::uint16_t eventType = 0;
    std::uint16_t eventModifier = 0;
    std::uint64_t timeStampInMs = 0;

    // From the subject token. The address is as the record has it, in network byte order.
    std::uint32_t auditId = 0;
    std::uint32_t effectiveUserID = 0;
    std::uint32_t effectiveGroupID = 0;
    std::uint32_t realUserID = 0;
    std::uint32_t realGroupID = 0;
    std::uint32_t processID = 0;
    std::uint32_t SessionID = 0;
    std::uint64_t port = 0;
    std::uint32_t addr = 0;

    // From the return token: the value, and the error number of the audit format.
    std::uint32_t ret = 0;
    std::uint8_t status = 0;

    // From the text token; absent when its bytes are not UTF-8, "" when there is none.
    std::optional<std::string> text = "";

    // From the identity token; absent when there is none.
    std::optional<std::string> signing_id;
    Signature signature;

    // The event, or nothing when the record is not to be reported.
    std::optional<Dictionary> parsedEvent();

    // The record's fields, for messages.
    std::string description() const;

  private:
    void GeneralEventParsing();
    void AdditionalEventChecks();
    void parseUserName(std::string_view separators);
    void checkSecurityAgent();
    void checkAuthentication();
    void checkDirectory();
    void addToLoginHistory(const Value& user) const;

    // Does nothing when the event is excluded; an empty value leaves the key out.
    void set(std::string_view key, Value&& value);
    Value get(std::string_view key) const;
    void exclude() { eventDict_.reset(); }

    std::optional<Dictionary> eventDict_ = Dictionary();
};

}  // namespace sentrova
