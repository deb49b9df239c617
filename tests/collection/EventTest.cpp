#include "collection/Event.h"
#include "collection/currentLoginUtility.h"
#include "support/AgentFixture.h"

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
    }
};

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

TEST_F(EventTest, TouchIdTakesItsUserFromTheHistoryForWhichOnlyRealtimeWaitsThreeSeconds) {
    const struct {
        Dictionary entry;
        std::uint64_t time;
        Text user;
        Text sid;
    } cases[] = {{{{"uid", "late"}}, kTime + 2, std::nullopt, std::nullopt},
                 {{{"gid", "staff"}}, kTime, std::nullopt, std::nullopt},
                 {{{"uid", "anna"}}, kTime + 1, "anna", "S-1-5-21-7"}};
    for (const auto& [entry, time, user, sid] : cases) {
        currentLoginUtility::addToLoginHistory(entry, static_cast<double>(time));
        const auto event = eventOf({.type = 45023, .ret = 1, .text = kTouchId}).parsedEvent();
        ASSERT_TRUE(event);
        EXPECT_EQ(textAt(event, "UserName"), user);
        EXPECT_EQ(textAt(event, "UserSid"), sid);
    }
    EXPECT_EQ(logged("Waiting for 3 sec"), 0);

    restart();
    std::filesystem::remove(volume().conf() / "currentLogins");
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
}

}  // namespace sentrova::testing
