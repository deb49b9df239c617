// The command `spool` of sentrovactl, beside the agent's program and without it.

#include "endtoend/EndToEnd.h"
#include "foundation/formats/Json.h"
#include "support/ControlProgram.h"

#include <unistd.h>

#include <map>
#include <set>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

class SpoolCommandTest : public EndToEnd {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "the command serves root only; run the tests as root";
        }
    }
    ControlOutcome spool(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--root", volume.agent().string(), "spool"});
        return runControl(arguments);
    }
    // The files of the list, by name.
    std::map<std::string, Dictionary> listed() {
        const auto output = Json::parse(spool({"list", "--json"}).output);
        std::map<std::string, Dictionary> files;
        for (const auto& file : output ? *(*output->dictionary())["files"].array() : Array()) {
            files[(*file.dictionary())["name"].description()] = *file.dictionary();
        }
        return files;
    }
    void put(const std::string& name, const std::string& content) const {
        std::ofstream(volume.eventData() / name) << content;
    }
    static std::string batchOf(int process) {
        return fmt::format(R"([{{"record_event":45028,"record_time":1700000000,"subject_pid":{}}}])", process);
    }
    // Every file of the installation with its time of change and its content.
    std::map<fs::path, std::pair<fs::file_time_type, std::string>> installation() const {
        std::map<fs::path, std::pair<fs::file_time_type, std::string>> found;
        for (const auto& entry : fs::recursive_directory_iterator(volume.agent())) {
            found[entry.path()] = {entry.last_write_time(), entry.is_regular_file() ? textOf(entry.path()) : ""};
        }
        return found;
    }
};

TEST_F(SpoolCommandTest, RefusedBatchesOfTheDurableModeAreSentAgainAtOnceUnderTheirKeys) {
    mine.set("DurableDelivery", true);
    configure();
    addTrail(volume, sudoTrail(1'700'000'000s, 0, 8));
    server.fail({.path = AuditServer::kEventsPath, .status = 422, .count = 1});
    put("altered_event_1", batchOf(100));
    RunningAgent agent(build::kAgent, volume);
    std::string refused;
    ASSERT_TRUE(waitUntil([&] {
        for (const auto& [name, file] : listed()) {
            refused = file["state"] == Value("refused") ? name : refused;
        }
        return !refused.empty();
    })) << log();
    const auto file = listed()[refused];
    EXPECT_EQ(file["events"], Value(4));
    EXPECT_EQ(file["http_status"], Value(422));
    EXPECT_NE(file["reason"].description().find("; next attempt at 20"), std::string::npos)
        << file["reason"].description();

    put("refused_1", batchOf(101));
    const auto retried = spool({"retry", "--all"});
    EXPECT_EQ(retried.status, 0) << retried.problems;
    EXPECT_NE(retried.output.find("altered_event_1 is left out"), std::string::npos) << retried.output;
    EXPECT_TRUE(waitUntil([&] { return listed().size() == 1; })) << spool({}).output << log();
    EXPECT_EQ(spool({"retry", "altered_event_1"}).status, 0);
    EXPECT_TRUE(waitUntil([&] { return listed().empty(); })) << log();
    auto expected = eachOnce(0, 8);
    expected.merge(eachOnce(100, 2));
    EXPECT_EQ(processesIn(server.events()), expected);
    std::set<std::string> keys;
    for (const auto& request : server.requests()) {
        for (const auto& [header, value] : request.headers) {
            keys.insert(header == "Idempotency-Key" ? value : "");
        }
    }
    EXPECT_EQ(keys.size(), 1U + 4U) << "besides no key, one per batch, also for the one that was sent twice";
    EXPECT_TRUE(server.keyFaults().empty());
}

TEST_F(SpoolCommandTest, StoppedInstallationIsReadOnlyAndARequestWaitsForTheNextStart) {
    configure();
    put("undelivered_5", batchOf(5));
    put("undelivered_6", "no batch");
    put("event_20261122102051004", R"([{"record_version":11,"subject_pid":7},{])");
    put("event_20261122102051005", batchOf(8));
    const auto before = installation();
    const auto files = listed();
    EXPECT_EQ(files.size(), 4U);
    EXPECT_EQ(files.at("undelivered_5")["state"], Value("kept"));
    EXPECT_EQ(files.at("undelivered_5")["events"], Value(1));
    EXPECT_TRUE(files.at("event_20261122102051004")["events"].isNull()) << "it is no JSON";
    EXPECT_EQ(files.at("event_20261122102051005")["state"], Value("waiting"));
    const auto table = spool({"show", "event_20261122102051005"});
    EXPECT_EQ(std::ranges::count(table.output, '\n'), 1 + 3) << table.output;
    EXPECT_NE(table.output.find("AUE_sudo"), std::string::npos) << table.output;
    const auto json = Json::parse(spool({"show", "--json", "undelivered_5"}).output);
    ASSERT_TRUE(json);
    EXPECT_EQ((*json->dictionary())["events"].array()->size(), 1U);
    const auto expectStatus = [this](int status, const std::vector<std::vector<std::string>>& cases) {
        for (const auto& arguments : cases) {
            const auto outcome = spool(arguments);
            EXPECT_EQ(outcome.status, status) << fmt::format("{}", fmt::join(arguments, " ")) << outcome.problems;
            EXPECT_EQ(outcome.problems.empty(), status == 0) << outcome.problems;
        }
    };
    expectStatus(0, {{}, {"retry", "event_20261122102051005"}});
    expectStatus(1, {{"show", "undelivered_6"}, {"show", "event_20261122102051004"}, {"show", "../conf/agent.lock"}});
    expectStatus(1, {{"show", "event_1"}, {"retry", "../eventData/undelivered_5"}, {"retry", "undelivered_6"}});
    expectStatus(64, {{"retry"}, {"retry", "--all", "undelivered_5"}, {"show"}});
    EXPECT_EQ(installation(), before);

    const auto asked = spool({"retry", "undelivered_5", "event_1"});
    EXPECT_EQ(asked.status, 1) << "event_1 is unknown";
    EXPECT_NE(asked.output.find("The agent is not running"), std::string::npos) << asked.output;
    // The agent would send it, and its refusal would end all deliveries until the next sync.
    fs::remove(volume.eventData() / "event_20261122102051004");
    RunningAgent agent(build::kAgent, volume);
    EXPECT_TRUE(server.waitForEvents(2)) << log();
    put("undelivered_9", batchOf(9));
    EXPECT_EQ(spool({"retry", "undelivered_9"}).status, 0);
    EXPECT_TRUE(server.waitForEvents(3)) << log();
    EXPECT_EQ(processesIn(server.events()), (Processes{5, 8, 9}));
}

}  // namespace
}  // namespace sentrova::testing
