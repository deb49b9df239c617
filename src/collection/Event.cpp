#include "collection/Event.h"

#include "collection/DomainUtil.h"
#include "core/GlobalConstants.h"
#include "core/LogSource.h"

#include <array>
#include <utility>

namespace sentrova {

namespace {

constexpr LogSource kLog("Event");

constexpr std::int64_t kMachineType = 4096;
constexpr std::uint32_t kNoSession = 100000;
constexpr std::string_view kTouchId = "Touch ID authentication";

constexpr std::string_view kText = "text_text";
constexpr std::string_view kUserName = "UserName";
constexpr std::string_view kAuditUser = "subject_audit-uid";
constexpr std::string_view kRecordTime = "record_time";

constexpr std::string_view kFeedsHistory = "feeds the login history only";
constexpr std::string_view kClosedSsh = "a closed ssh session (com.apple.sshd)";
constexpr std::string_view kGranted = "an authorization that was granted";
constexpr std::string_view kLocalUser = "a local user of this Mac";

// Reports the number as signed.
std::int64_t asInt(std::uint32_t value) {
    return static_cast<std::int32_t>(value);
}

}  // namespace

std::span<const std::string_view> Event::keys() {
    static constexpr std::array<std::string_view, 26> kKeys = {
        "record_version", "record_event",        "record_modifier", kRecordTime,    kAuditUser,
        "subject_uid",    "subject_gid",         "subject_ruid",    "subject_rgid", "subject_pid",
        "subject_sid",    "subject_port",        "subject_host-ip", kText,          "return_retval",
        "return_errval",  "identity_signing-id", "EventCode",       "MachineType",  "EventSource",
        "IsParsedEvent",  "DomainName",          "Logon Type",      kUserName,      "Source Workstation",
        "UserSid"};
    return kKeys;
}

std::optional<Dictionary> Event::parsedEvent() {
    GeneralEventParsing();
    AdditionalEventChecks();
    return std::move(eventDict_);
}

void Event::set(std::string_view key, Value&& value) {
    if (!eventDict_) {
        return;
    }
    if (value.isNull()) {
        eventDict_->remove(key);
    } else {
        eventDict_->set(key, std::move(value));
    }
}

Value Event::get(std::string_view key) const {
    return eventDict_ ? (*eventDict_)[key] : Value();
}

void Event::exclude(std::string_view reason) {
    if (eventDict_) {
        exclusion_ = {reason, *std::move(eventDict_)};
        eventDict_.reset();
    }
}

void Event::GeneralEventParsing() {
    constexpr std::size_t kMostKeys = 28;
    if (eventDict_) {
        eventDict_->reserve(kMostKeys);
    }
    set("record_version", static_cast<std::int8_t>(version));
    set("record_event", eventType);
    set("record_modifier", eventModifier);
    set(kRecordTime, timeStampInMs);
    set(kAuditUser, context_->userName(auditId));
    set("subject_uid", context_->userName(effectiveUserID));
    set("subject_gid", context_->groupName(effectiveGroupID));
    set("subject_ruid", context_->userName(realUserID));
    set("subject_rgid", context_->groupName(realGroupID));
    set("subject_pid", asInt(processID));
    set("subject_sid", asInt(SessionID));
    set("subject_port", port);
    set("subject_host-ip", DomainUtil::getIpAddressFromID(addr));
    set(kText, text ? Value(*text) : Value());
    set("return_retval", asInt(ret));
    set("return_errval", DomainUtil::getEventTypeText(status));
    set("identity_signing-id", signing_id ? Value(*signing_id) : Value());
    set("EventCode", eventType);
}

void Event::AdditionalEventChecks() {
    set("MachineType", kMachineType);
    set("EventSource", "OpenBSM");
    set("IsParsedEvent", "true");
    const auto domain = context_->domainName();
    set(GlobalConstants::DOMAIN_NAME, domain ? Value(*domain) : Value());
    set("Logon Type", "2");

    switch (eventType) {
        case AuditEventNumber::ssauthint:
            checkSecurityAgent();
            break;
        case AuditEventNumber::auth_user:
            checkAuthentication();
            break;
        default:
            set(kUserName, get(kAuditUser));
    }
    if (eventType == AuditEventNumber::lw_login) {
        kLog.debug("Adding from 45021");
        addToLoginHistory(get(kUserName));
        exclude(kFeedsHistory);
    }
    if (eventType == AuditEventNumber::logout && signing_id == "com.apple.sshd") {
        exclude(kClosedSsh);
    }
    const auto host = context_->hostName();
    set("Source Workstation", host ? Value(*host) : Value());
    checkDirectory();
}

void Event::checkSecurityAgent() {
    if (ret != 0) {
        parseUserName("<>");
        return;
    }
    if (signing_id == "com.apple.authorizationhost") {
        kLog.debug("Adding from 45026");
        addToLoginHistory(get(kText));
        exclude(kFeedsHistory);
    }
    exclude(kGranted);
}

void Event::checkAuthentication() {
    if (text == kTouchId) {
        context_->awaitLogonUser();
        const auto entry = context_->logonUserAt(get(kRecordTime).integerValue());
        if (entry) {
            set(kUserName, Value((*entry)["uid"]));
        }
        return;
    }
    parseUserName("''");
    if (SessionID == kNoSession || ret != 0) {
        return;
    }
    kLog.debug("Adding from 45023");
    addToLoginHistory(get(kUserName));
}

void Event::parseUserName(std::string_view separators) {
    const auto whole = get(kText).description();
    const auto first = whole.find_first_of(separators);
    if (first == std::string::npos) {
        set(kUserName, get(kText));
        return;
    }
    const auto second = whole.find_first_of(separators, first + 1);
    set(kUserName, whole.substr(first + 1, second == std::string::npos ? second : second - first - 1));
}

void Event::addToLoginHistory(const Value& user) const {
    context_->addToLoginHistory({{"uid", user.description()}}, static_cast<double>(timeStampInMs));
}

void Event::checkDirectory() {
    // Also runs for an excluded event. Its name is absent, so the look-up finds no user.
    const auto details = context_->userDetails(get(kUserName).description());
    if (!details) {
        return;
    }
    if ((*details)[DomainUtil::kODAttributeTypePrimaryNTDomain].isNull()) {
        if (LogSource::isWritten(LogLevel::Info)) {
            kLog.in(LogCategory::Event)
                .info("Excluding event because of {}", eventDict_ ? Value(*eventDict_) : Value());
        }
        exclude(kLocalUser);
        return;
    }
    const auto* const sids = (*details)[DomainUtil::kODAttributeTypeSMBSID].array();
    if (sids && !sids->empty()) {
        set("UserSid", Value(sids->front()));
    }
}

std::string Event::description() const {
    // Formatted as a dictionary, which escapes the record's text: it cannot imitate a line of the log.
    return Value(Dictionary{
                     {"eventType", eventType},
                     {"eventModifier", eventModifier},
                     {"timeStampInMs", timeStampInMs},
                     {"auditId", asInt(auditId)},
                     {"effectiveUserID", asInt(effectiveUserID)},
                     {"processID", asInt(processID)},
                     {"SessionID", asInt(SessionID)},
                     {"ret", asInt(ret)},
                     {"status", status},
                     {"text", text ? Value(*text) : Value()},
                     {"signing_id", signing_id ? Value(*signing_id) : Value()},
                 })
        .description();
}

}  // namespace sentrova
