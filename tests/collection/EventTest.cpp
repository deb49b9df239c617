#include "collection/Event.h"
#include "collection/currentLoginUtility.h"
#include "support/AgentFixture.h"

#include <future>

#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t kTime = 1794743000;
constexpr const char* kTouchId = "Touch ID authentication";

using Text = std::optional<std::string>;

// The event of a record of a user's session, unless the case overrides it.
Event eventOf(std::uint16_t type, std::uint32_t ret, const Text& text = "", const Text& signingId = std::nullopt,
              std::uint32_t session = 100007, std::uint32_t auditId = 501) {
    Event event;
    event.eventType = type;
    event.ret = ret;
    event.text = text;
    event.signing_id = signingId;
    event.SessionID = session;
    event.auditId = auditId;
    event.timeStampInMs = kTime;
    return event;
}

Text textAt(const std::optional<Dictionary>& dictionary, std::string_view key) {
    const auto* value = dictionary ? dictionary->find(key) : nullptr;
    return value ? Text(value->description()) : std::nullopt;
}

}  // namespace

class EventTest : public ::testing::Test, protected AgentFixture {
  protected:
    EventTest() {
        volume().addDomainUser("anna", 501, "S-1-5-21-7", "CORP");
        volume().addLocalUser("lars", 502);
        volume().addUser("nosid", {{"name", "nosid"}, {"uid", 503}, {"primary_ntdomain", "CORP"}});
        std::filesystem::create_directory(volume().volume() / "var/db/dslocal/nodes/Default/users/sub");
    }
};

TEST_F(EventTest, TypeResultSignerAndUserDecideWhatIsReportedAndWhatEntersTheHistory) {
    const Text none;
    const Text sid = "S-1-5-21-7";
    // The event, whether it is reported, its user, the user in the history afterwards, and the SID.
    const std::tuple<const char*, Event, bool, Text, Text, Text> cases[] = {
        {"failed agent", eventOf(45026, 1, "Failed <anna> (x)"), true, "anna", none, sid},
        {"failed, no name", eventOf(45026, 1, "who"), true, "who", none, none},
        {"agent", eventOf(45026, 0, "anna", "com.apple.authorizationhost"), false, none, "anna", none},
        {"other signer", eventOf(45026, 0, "anna", "com.apple.Authorizationhost"), false, none, none, none},
        {"no signer", eventOf(45026, 0, "anna"), false, none, none, none},
        {"password", eventOf(45023, 0, "User 'anna' ok"), true, "anna", "anna", sid},
        {"no session", eventOf(45023, 0, "User 'anna'", {}, 100000), true, "anna", none, sid},
        {"wrong password", eventOf(45023, 5000, "User 'anna'"), true, "anna", none, sid},
        {"local user", eventOf(45023, 0, "User 'lars'"), false, none, "lars", none},
        {"unknown user", eventOf(45023, 0, "User 'ghost'"), true, "ghost", "ghost", none},
        {"a path", eventOf(45023, 0, "User 'sub/../lars'"), true, "sub/../lars", "sub/../lars", none},
        {"no text", eventOf(45023, 0, ""), true, "", "", none},
        {"text not UTF-8", eventOf(45023, 0, none), true, none, "(null)", none},
        {"text not UTF-8, failed", eventOf(45026, 1, none), true, none, none, none},
        {"login", eventOf(45021, 0), false, none, "anna", none},
        {"login, no user", eventOf(45021, 0, "", {}, 100007, 0xFFFFFFFF), false, none, "-1", none},
        {"ssh logout", eventOf(6153, 0, "", "com.apple.sshd"), false, none, none, none},
        {"logout", eventOf(6153, 0, "", "com.apple.login"), true, "anna", none, sid},
        {"unsigned logout", eventOf(6153, 0), true, "anna", none, sid},
        {"other", eventOf(6152, 1, "User 'lars'"), true, "anna", none, sid},
        {"other, local", eventOf(6152, 0, "", {}, 100007, 502), false, none, none, none},
        {"no SID", eventOf(6152, 0, "", {}, 100007, 503), true, "nosid", none, none},
        {"no account", eventOf(6152, 0, "", {}, 100007, 0xFFFFFFFF), true, "-1", none, none},
    };
    for (auto [what, event, reported, user, history, userSid] : cases) {
        SCOPED_TRACE(what);
        restart();
        std::filesystem::remove(volume().conf() / "currentLogins");
        const auto dictionary = event.parsedEvent();
        EXPECT_EQ(dictionary.has_value(), reported);
        EXPECT_EQ(textAt(dictionary, "UserName"), user);
        EXPECT_EQ(textAt(dictionary, "UserSid"), userSid);
        EXPECT_EQ(textAt(currentLoginUtility::getLogonUserAtTime(kTime), "uid"), history);
    }
    EXPECT_EQ(logged("Excluding event because of {", "Event"), 2);
}

TEST_F(EventTest, UserNameIsTheTextBetweenTheFirstTwoSeparators) {
    const std::tuple<std::uint16_t, const char*, const char*> cases[] = {
        {45023, "'", ""},      {45023, "a'b", "b"},   {45023, "a'b'c'd", "b"},
        {45023, "''x'", ""},   {45023, "'b", "b"},    {45023, "<b>", "<b>"},
        {45026, "<b>", "b"},   {45026, "a>b<c", "b"}, {45026, "a<b c> <d>", "b c"},
        {45026, "'b'", "'b'"}, {45026, "a>", ""},
    };
    for (const auto& [type, text, user] : cases) {
        EXPECT_EQ(textAt(eventOf(type, 1, text).parsedEvent(), "UserName"), user) << text;
    }
}

TEST_F(EventTest, TouchIdTakesItsUserFromTheHistoryAndOnlyRealtimeWaitsThreeSeconds) {
    const std::tuple<Dictionary, std::uint64_t, Text, Text> cases[] = {
        {{{"uid", "late"}}, kTime + 2, {}, {}},
        {{{"gid", "staff"}}, kTime, {}, {}},
        {{{"uid", "anna"}}, kTime + 1, "anna", "S-1-5-21-7"}};
    for (const auto& [entry, time, user, sid] : cases) {
        currentLoginUtility::addToLoginHistory(entry, static_cast<double>(time));
        const auto event = eventOf(45023, 1, kTouchId).parsedEvent();
        ASSERT_TRUE(event);
        EXPECT_EQ(textAt(event, "UserName"), user);
        EXPECT_EQ(textAt(event, "UserSid"), sid);
    }
    EXPECT_EQ(logged("Waiting for 3 sec"), 0);

    serverInfo.set("IsRealTime", true);
    restartConfigured();
    auto parsed = std::async(std::launch::async, [] { return eventOf(45023, 0, kTouchId).parsedEvent(); });
    ASSERT_TRUE(clock().awaitTimerIn(3s));
    currentLoginUtility::addToLoginHistory({{"uid", "anna"}}, static_cast<double>(kTime));
    clock().advance(2999ms);
    EXPECT_EQ(parsed.wait_for(0s), std::future_status::timeout);
    clock().advance(1ms);
    EXPECT_EQ(textAt(parsed.get(), "UserName"), "anna");
}

}  // namespace sentrova::testing
