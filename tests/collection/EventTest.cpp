#include "collection/Event.h"
#include "collection/currentLoginUtility.h"
#include "foundation/Json.h"
#include "support/AgentFixture.h"

#include <cstring>
#include <future>

#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t kTime = 1794743000;
constexpr std::uint32_t kSession = 100007;
constexpr const char* kTouchId = "Touch ID authentication";

using Text = std::optional<std::string>;

struct Fields {
    std::uint16_t type = 0;
    std::uint32_t ret = 0;
    Text text = "";
    Text signingId = std::nullopt;
    std::uint32_t session = kSession;
    std::uint32_t auditId = 501;
};

Event eventOf(const Fields& fields) {
    Event event;
    event.eventType = fields.type;
    event.ret = fields.ret;
    event.text = fields.text;
    event.signing_id = fields.signingId;
    event.SessionID = fields.session;
    event.auditId = fields.auditId;
    event.timeStampInMs = kTime;
    return event;
}

Text textAt(const std::optional<Dictionary>& dictionary, std::string_view key) {
    const auto* value = dictionary ? dictionary->find(key) : nullptr;
    return value ? Text(value->description()) : std::nullopt;
}

Text historyAt(std::uint64_t time) {
    return textAt(currentLoginUtility::getLogonUserAtTime(static_cast<std::int64_t>(time)), "uid");
}

}  // namespace

class EventTest : public ::testing::Test, protected AgentFixture {
  protected:
    EventTest() {
        volume().addDomainUser("anna", 501, "S-1-5-21-7", "CORP");
        volume().addLocalUser("lars", 502);
        volume().addUser("nosid", {{"name", "nosid"}, {"uid", 503}, {"primary_ntdomain", "CORP"}});
        volume().addGroup("staff", {{"name", "staff"}, {"gid", 20}});
    }
};

TEST_F(EventTest, DictionaryHasTheKeysOfTheRecordWithSignedNumbers) {
    Event event;
    event.version = 0xFF;
    event.eventType = 45028;
    event.eventModifier = 0xFFFF;
    event.timeStampInMs = kTime;
    event.auditId = 501;
    event.effectiveUserID = 0xFFFFFFFF;
    event.effectiveGroupID = 20;
    event.realUserID = 502;
    event.realGroupID = 0xFFFFFFF0;
    event.processID = 0xFFFFFFFF;
    event.SessionID = 0x80000000;
    event.port = 0xFFFFFFFFFFFFFFFE;
    constexpr std::uint8_t kAddress[] = {192, 0, 2, 7};
    std::memcpy(&event.addr, kAddress, sizeof(event.addr));
    event.ret = 0xFFFFFFFF;
    event.status = 255;
    event.text = "\"two\" words";
    event.signing_id = "com.apple.sudo";

    const auto dictionary = event.parsedEvent();
    ASSERT_TRUE(dictionary);
    EXPECT_EQ(*Json::write(*dictionary),
              R"({"record_version":-1,"record_event":45028,"record_modifier":65535,"record_time":1794743000,)"
              R"("subject_audit-uid":"anna","subject_uid":"-1","subject_gid":"staff","subject_ruid":"lars",)"
              R"("subject_rgid":"-16","subject_pid":-1,"subject_sid":-2147483648,"subject_port":-2,)"
              R"("subject_host-ip":"192.0.2.7","text_text":"\"two\" words","return_retval":-1,)"
              R"("return_errval":"failure: Unknown error: 255","identity_signing-id":"com.apple.sudo",)"
              R"("EventCode":45028,"MachineType":4096,"EventSource":"OpenBSM","IsParsedEvent":"true",)"
              R"("DomainName":"corp.example.com","Logon Type":"2","UserName":"anna",)"
              R"("Source Workstation":"mac-042","UserSid":"S-1-5-21-7"})");
}

TEST_F(EventTest, AbsentTextsLeaveTheirKeysOut) {
    volume().setDirectoryTool("", 1);
    serverInfo.remove("DomainName");
    writeConfiguration();
    Event event = eventOf({.type = 6152, .text = std::nullopt});
    event.status = 0;
    const auto dictionary = event.parsedEvent();
    ASSERT_TRUE(dictionary);
    for (const auto* key : {"text_text", "identity_signing-id", "DomainName", "Source Workstation"}) {
        EXPECT_FALSE(dictionary->contains(key)) << key;
    }
    EXPECT_EQ((*dictionary)["return_errval"], Value("success"));
}

TEST_F(EventTest, TypeResultSignerAndUserDecideWhatIsReportedAndWhatTheHistoryLearns) {
    const struct {
        const char* what;
        Fields fields;
        bool reported;
        Text user;
        Text history;
        Text sid = std::nullopt;
    } cases[] = {
        {"failed agent", {45026, 1, "Failed <anna> (x)"}, true, "anna", std::nullopt, "S-1-5-21-7"},
        {"failed, no name", {45026, 1, "who"}, true, "who", std::nullopt},
        {"agent", {45026, 0, "anna", "com.apple.authorizationhost"}, false, std::nullopt, "anna"},
        {"other signer", {45026, 0, "anna", "com.apple.Authorizationhost"}, false, std::nullopt, std::nullopt},
        {"no signer", {45026, 0, "anna"}, false, std::nullopt, std::nullopt},
        {"password", {45023, 0, "User 'anna' ok"}, true, "anna", "anna", "S-1-5-21-7"},
        {"no session", {45023, 0, "User 'anna'", {}, 100000}, true, "anna", std::nullopt, "S-1-5-21-7"},
        {"wrong password", {45023, 5000, "User 'anna'"}, true, "anna", std::nullopt, "S-1-5-21-7"},
        {"local user", {45023, 0, "User 'lars'"}, false, std::nullopt, "lars"},
        {"unknown user", {45023, 0, "User 'ghost'"}, true, "ghost", "ghost"},
        {"no text", {45023, 0, ""}, true, "", ""},
        {"text not UTF-8", {45023, 0, std::nullopt}, true, std::nullopt, "(null)"},
        {"text not UTF-8, failed", {45026, 1, std::nullopt}, true, std::nullopt, std::nullopt},
        {"login", {45021}, false, std::nullopt, "anna"},
        {"login, no user", {45021, 0, "", {}, kSession, 0xFFFFFFFF}, false, std::nullopt, "-1"},
        {"ssh logout", {6153, 0, "", "com.apple.sshd"}, false, std::nullopt, std::nullopt},
        {"logout", {6153, 0, "", "com.apple.login"}, true, "anna", std::nullopt, "S-1-5-21-7"},
        {"unsigned logout", {6153}, true, "anna", std::nullopt, "S-1-5-21-7"},
        {"other", {6152, 1, "User 'lars'"}, true, "anna", std::nullopt, "S-1-5-21-7"},
        {"other, local", {6152, 0, "", {}, kSession, 502}, false, std::nullopt, std::nullopt},
        {"no SID", {6152, 0, "", {}, kSession, 503}, true, "nosid", std::nullopt},
        {"no account", {6152, 0, "", {}, kSession, 0xFFFFFFFF}, true, "-1", std::nullopt},
    };
    for (const auto& test : cases) {
        restart();
        std::filesystem::remove(volume().conf() / "currentLogins");
        const auto dictionary = eventOf(test.fields).parsedEvent();
        EXPECT_EQ(dictionary.has_value(), test.reported) << test.what;
        EXPECT_EQ(textAt(dictionary, "UserName"), test.user) << test.what;
        EXPECT_EQ(textAt(dictionary, "UserSid"), test.sid) << test.what;
        EXPECT_EQ(historyAt(kTime), test.history) << test.what;
    }
    EXPECT_EQ(logged("Excluding event because of {", "Event"), 2);
}

TEST_F(EventTest, NameIsTheSecondPieceOfTheText) {
    const struct {
        std::uint16_t type;
        const char* text;
        const char* user;
    } cases[] = {
        {45023, "'", ""},      {45023, "a'b", "b"},   {45023, "a'b'c'd", "b"},
        {45023, "''x'", ""},   {45023, "'b", "b"},    {45023, "<b>", "<b>"},
        {45026, "<b>", "b"},   {45026, "a>b<c", "b"}, {45026, "a<b c> <d>", "b c"},
        {45026, "'b'", "'b'"}, {45026, "a>", ""},
    };
    for (const auto& [type, text, user] : cases) {
        EXPECT_EQ(textAt(eventOf({.type = type, .ret = 1, .text = text}).parsedEvent(), "UserName"), user) << text;
    }
}

TEST_F(EventTest, TouchIdTakesItsUserFromTheHistoryWithoutAWaitInABatch) {
    currentLoginUtility::addToLoginHistory({{"uid", "late"}}, static_cast<double>(kTime + 2));
    const auto unnamed = eventOf({.type = 45023, .text = kTouchId}).parsedEvent();
    ASSERT_TRUE(unnamed);
    EXPECT_FALSE(unnamed->contains("UserName"));
    EXPECT_FALSE(unnamed->contains("UserSid"));

    currentLoginUtility::addToLoginHistory({{"gid", "staff"}}, static_cast<double>(kTime));
    EXPECT_EQ(textAt(eventOf({.type = 45023, .text = kTouchId}).parsedEvent(), "UserName"), std::nullopt);

    currentLoginUtility::addToLoginHistory({{"uid", "anna"}}, static_cast<double>(kTime + 1));
    const auto named = eventOf({.type = 45023, .ret = 1, .text = kTouchId}).parsedEvent();
    EXPECT_EQ(textAt(named, "UserName"), "anna");
    EXPECT_EQ(textAt(named, "UserSid"), "S-1-5-21-7");
    EXPECT_EQ(logged("Waiting for 3 sec"), 0);
}

TEST_F(EventTest, TouchIdWaitsThreeSecondsForItsUserInRealtime) {
    serverInfo.set("IsRealTime", true);
    writeConfiguration();
    auto parsed =
        std::async(std::launch::async, [] { return eventOf({.type = 45023, .text = kTouchId}).parsedEvent(); });
    ASSERT_TRUE(clock().awaitTimerIn(3s));
    currentLoginUtility::addToLoginHistory({{"uid", "anna"}}, static_cast<double>(kTime));
    clock().advance(2999ms);
    EXPECT_EQ(parsed.wait_for(0s), std::future_status::timeout);
    clock().advance(1ms);
    EXPECT_EQ(textAt(parsed.get(), "UserName"), "anna");
    EXPECT_EQ(logged("completed Waiting for 3 sec"), 1);
}

}  // namespace sentrova::testing
