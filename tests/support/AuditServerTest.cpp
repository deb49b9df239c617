#include "foundation/CurlUrlSession.h"
#include "support/AuditServer.h"
#include "support/EventTable.h"

#include <fstream>
#include <future>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace sentrova::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Json = nlohmann::json;

class AuditServerTest : public ::testing::Test {
  protected:
    // The status, 0 for none, and the body.
    std::pair<std::int64_t, std::string> ask(const std::string& method, const std::string& path,
                                             const std::string& body = "") {
        UrlRequest request;
        request.url = server_.url() + path;
        request.method = method;
        std::promise<std::pair<std::int64_t, std::string>> promise;
        session_.uploadTask(request, body, [&](const auto& data, const auto& response, const auto&) {
            promise.set_value(
                {response ? response->statusCode : 0, data ? std::string(data->begin(), data->end()) : std::string()});
        });
        return promise.get_future().get();
    }
    std::pair<std::int64_t, std::string> post(const std::string& path, const std::string& body = "") {
        return ask("POST", path, body);
    }

    const std::string answerFile_ = ::testing::TempDir() + "sync-answer-" + std::to_string(getpid()) + ".json";
    std::vector<std::string> shown_;
    AuditServer server_{{.answerFile = answerFile_, .onEvent = [this](const auto& event) { shown_.push_back(event); }}};
    CurlUrlSession session_{nullptr};
};

TEST_F(AuditServerTest, OnlyAnArrayOfEventsIsAccepted) {
    EXPECT_EQ(post(AuditServer::kEventsPath, R"([ {"a": "x, [\"]"} , [1, 2],3 ])").first, 200);
    EXPECT_EQ(post(AuditServer::kEventsPath, " [] ").first, 200);
    for (const char* const refused : {"", "{}", "[1", "[1]]", "[1,]", "text"}) {
        EXPECT_EQ(post(AuditServer::kEventsPath, refused).first, 400) << refused;
    }
    EXPECT_THAT(server_.events(), ElementsAre(R"({"a":"x, [\"]"})", "[1,2]", "3"));
    EXPECT_EQ(shown_, server_.events());
    EXPECT_EQ(ask("GET", "/control/events").second, R"([{"a":"x, [\"]"},[1,2],3])");
    EXPECT_EQ(ask("GET", AuditServer::kEventsPath).first, 404);
}

TEST_F(AuditServerTest, SyncAnswerIsTheFileAsItIsNowUnlessOneWasSet) {
    EXPECT_EQ(post(AuditServer::kSyncPath).first, 500);
    for (const std::string text : {R"({"a":1})", R"({"a":2})"}) {
        std::ofstream(answerFile_) << text;
        EXPECT_EQ(post(AuditServer::kSyncPath).second, text);
    }
    EXPECT_EQ(post("/control/answer", R"({"a":3})").first, 200);
    EXPECT_EQ(post(AuditServer::kSyncPath).second, R"({"a":3})");
    std::remove(answerFile_.c_str());
}

TEST_F(AuditServerTest, FailuresAreMetInTheirOrderByTheRequestsOfTheirPath) {
    EXPECT_EQ(post("/control/fail", R"([{"kind":"status","status":503,"path":"/api/agent/tabs","count":2},
                                        {"kind":"drop"},{"kind":"redirect"},{"kind":"cut"},{"kind":"cuthead"},
                                        {"kind":"slow","seconds":0,"body":"slow"},{"kind":"delay","seconds":0}])")
                  .first,
              200);
    const auto path = AuditServer::kEventsPath;
    EXPECT_EQ(post(path, "[1]").first, 503);
    EXPECT_EQ(post("/other").first, 302);  // the drop of a kept-alive connection was made good by the next sending
    EXPECT_EQ(post(path, "[1]").first, 503);
    EXPECT_EQ(post(path, "[1]").first, 0);
    EXPECT_EQ(post(path, "[1]").first, 0);
    EXPECT_EQ(post(path, "[1]").second, "slow");
    EXPECT_THAT(server_.events(), IsEmpty());
    EXPECT_EQ(post(path, "[2]").first, 200);
    EXPECT_EQ(post(path, "[3]").first, 200);
    EXPECT_THAT(server_.events(), ElementsAre("2", "3"));

    const auto requests = Json::parse(ask("GET", "/control/requests").second);
    std::vector<int> statuses;
    for (const auto& request : requests) {
        statuses.push_back(request.at("status"));
    }
    EXPECT_THAT(statuses, ElementsAre(503, 0, 302, 503, 200, 200, 200, 200, 200));
    EXPECT_EQ(requests[0].at("path"), path);
    EXPECT_EQ(requests[0].at("body"), "[1]");
}

TEST_F(AuditServerTest, FailureLastsUntilTheResetAndABadOneIsRefused) {
    for (const char* const refused : {"", "{}", R"({"kind":"no such"})", R"([{"kind":"drop"},1])"}) {
        EXPECT_EQ(post("/control/fail", refused).first, 400) << refused;
    }
    EXPECT_EQ(post(AuditServer::kEventsPath, "[1]").first, 200);
    EXPECT_EQ(post("/control/fail", R"({"kind":"status","count":-1,"headers":{"X-A":"b"}})").first, 200);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(post(AuditServer::kEventsPath, "[1]").first, 500);
    }
    EXPECT_EQ(post("/control/reset").first, 200);
    EXPECT_THAT(server_.requests(), IsEmpty());
    EXPECT_EQ(post(AuditServer::kEventsPath, "[2]").first, 200);
    EXPECT_THAT(server_.events(), ElementsAre("2"));
}

TEST(EventTableTest, LineShowsTheEventAndNothingOfItActsOnTheTerminal) {
    const auto line = eventTableLine(
        R"({"record_time":86400000,"EventCode":45028,"UserName":"ev\u001b[2Jil\u009b","DomainName":"\u202eACME",)"
        R"("Source Workstation":"a very long workstation name","return_errval":"success"})");
    EXPECT_THAT(line, HasSubstr("1972-09-2"));
    EXPECT_THAT(line, HasSubstr("  sudo  "));
    EXPECT_THAT(line, HasSubstr("ev\\u001b[2Jil\\u00…"));
    EXPECT_THAT(line, HasSubstr("\\u202eACME"));
    EXPECT_THAT(line, HasSubstr("a very long worksta…  success"));
    // Whatever an event holds, it is shown on one line.
    for (const char* const odd : {"7", "[\"a\u2028b\"]", "{}", R"({"record_time":9e99,"EventCode":"\n"})",
                                  R"({"record_time":9223372036854775807,"EventCode":[1]})"}) {
        const auto shown = eventTableLine(odd);
        EXPECT_FALSE(shown.empty()) << odd;
        EXPECT_EQ(shown.find('\n'), std::string::npos) << odd;
        EXPECT_EQ(shown.find("\u2028"), std::string::npos) << odd;
    }
}

}  // namespace
}  // namespace sentrova::testing
