#include "forwarding/RetryRequests.h"
#include "support/AgentFixture.h"

#include <fstream>

#include <gtest/gtest.h>

namespace sentrova::testing {

class RetryRequestsTest : public ::testing::Test, protected AgentFixture {
  protected:
    void put(const std::string& name, std::string_view content) {
        std::ofstream(volume().eventData() / name) << content;
    }
    std::multiset<std::string> files() {
        std::multiset<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(volume().eventData())) {
            // Names of new batches hold the time.
            found.insert(entry.path().filename().string().substr(0, 14));
        }
        return found;
    }
    RetryRequests requests{GlobalVariables::getInstance(), host().host().files, Current<Spool>::get()};
};

TEST_F(RetryRequestsTest, RequestsAreServedOnceWhateverTheySay) {
    put("undelivered_1", R"([{"n":1}])");
    put("undelivered_2", R"([{"n":2},{])");
    put("event_3", R"([{"n":3}])");
    put(".retry-1-1", R"({"names":["undelivered_1","undelivered_2","event_3","gone","../conf",".journal",7]})");
    put(".retry-1-2", R"({"names":["undelivered_1")");
    put(".retry-1-3", "[]");
    requests.serve(nullptr);
    const std::multiset<std::string> served = {"event_20261115", "event_3", "undelivered_2"};
    EXPECT_EQ(files(), served);
    EXPECT_EQ(logged("undelivered_1 is sent again, as"), 1);
    EXPECT_EQ(logged("undelivered_2 is not a batch of events"), 1);
    EXPECT_EQ(logged("names no file of the spool"), 3);
    EXPECT_EQ(logged("is damaged and is removed"), 2);
    // As after a kill before the request was removed.
    put(".retry-1-1", R"({"names":["undelivered_1"]})");
    requests.serve(nullptr);
    EXPECT_EQ(files(), served);
    EXPECT_EQ(logged("undelivered_1 was asked for and is not in the spool any more"), 1);
}

}  // namespace sentrova::testing
