// sentrovactl status and sync, beside the agent's own program.

#include "endtoend/EndToEnd.h"
#include "foundation/files/FileDescriptor.h"
#include "foundation/formats/Json.h"
#include "foundation/run/Clock.h"
#include "support/ControlProgram.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <future>

#include <fmt/format.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Kind = AuditServer::Failure::Kind;

class StatusTest : public EndToEnd {
  protected:
    StatusTest() {
        const Dictionary more = {{"NumberofEventsPerRequest", 5}, {"FetchInterval", 3600},   {"SyncTime", 900},
                                 {"EventsToRead", "AUE_sudo"},    {"AgentGuid", "guid"},     {"DomainID", "1"},
                                 {"AgentUID", "uid-7"},           {"AgentAuthID", "mac-77"}, {"LogLevel", 2}};
        for (const auto& [key, value] : more) {
            serverInfo.set(key, value);
        }
        server.setAnswer(*Json::write(serverInfo));
        volume.writeConfiguration(
            "schedules.plist",
            {{"ScheduleTasks", Array{taskEntry("EventCollection", "EventCollectionSchedule", "start", 3600),
                                     taskEntry("SpoolSize", "ScheduleHandler", "CheckEventDatasize", 1)}}});
    }

    ControlOutcome control(const std::vector<std::string>& words, ControlUser user = ControlUser::root) {
        std::vector<std::string> all = {"--root", volume.agent().string()};
        all.insert(all.end(), words.begin(), words.end());
        return runControl(all, {}, {"TZ=UTC"}, user);
    }
    // The status as JSON, after a check that text and JSON agree.
    Dictionary status(int exit) {
        const auto json = control({"status", "--json"});
        EXPECT_EQ(json.status, exit) << json.output << json.problems;
        const auto parsed = Json::parse(json.output);
        const auto content = parsed && parsed->dictionary() ? *parsed->dictionary() : Dictionary();
        const char* const states[] = {"healthy", "unhealthy", "", "not running"};
        EXPECT_EQ(content["state"], Value(states[exit]));
        const auto text = control({"status"});
        EXPECT_EQ(text.status, exit);
        EXPECT_EQ(text.output.starts_with("Healthy\n"), exit == 0) << text.output;
        const auto* const problems = content["problems"].array();
        EXPECT_EQ(problems && problems->empty(), exit == 0);
        for (const auto& problem : problems ? *problems : Array()) {
            EXPECT_NE(text.output.find((*problem.dictionary())["problem"].description()), std::string::npos);
            EXPECT_FALSE((*problem.dictionary())["remedy"].description().empty());
        }
        return content;
    }
    // Waits until the status has the exit status. A problem's text must hold the words.
    Dictionary statusWith(int exit, std::string_view words = {}) {
        EXPECT_TRUE(waitUntil([&] { return control({"status"}).status == exit; })) << control({"status"}).output;
        auto content = status(exit);
        EXPECT_NE(content["problems"].description().find(words), std::string::npos)
            << control({"status"}).output << "without: " << words;
        return content;
    }
    const Value& in(const Dictionary& status, std::string_view key, std::string_view inner) {
        return (*status[key].dictionary())[inner];
    }
    // Every file of the installation with its size and its time.
    std::map<std::string, std::pair<std::uintmax_t, fs::file_time_type>> listing() const {
        std::map<std::string, std::pair<std::uintmax_t, fs::file_time_type>> files;
        for (const auto& entry : fs::recursive_directory_iterator(volume.agent())) {
            files[entry.path()] = {entry.is_regular_file() ? entry.file_size() : 0, entry.last_write_time()};
        }
        return files;
    }
};

TEST_F(StatusTest, HealthyAgentTellsWhatItHasDoneAndAStoppedOneIsLeftUntouched) {
    configure();
    const auto begun = epochSeconds(std::chrono::system_clock::now());
    auto trail = sudoTrail(1'700'000'000s, 1, 5);
    trail.add(TrailRecord(45021).at(1'700'000'009s).subject({.auditId = 4001}).returns(0));
    addTrail(volume, trail);
    {
        RunningAgent agent(build::kAgent, volume);
        ASSERT_TRUE(server.waitForEvents(5)) << log();
        const auto told = statusWith(0);
        EXPECT_EQ(told["pid"], Value(static_cast<std::int64_t>(agent.process())));
        EXPECT_GE(told["since"].integerValue(), begun);
        EXPECT_GT(told["memory"].integerValue(), 1'000'000);
        EXPECT_EQ(told["auditing"], Value(true));
        EXPECT_EQ(in(told, "server", "reachable"), Value(true));
        EXPECT_TRUE(in(told, "server", "address").description().ends_with(fmt::format(":{}", server.port())));
        EXPECT_GE(in(told, "server", "last_contact").integerValue(), begun);
        EXPECT_TRUE(in(told, "server", "last_failure").isNull());
        EXPECT_EQ(told["last_read"], Value(1'700'000'009));
        EXPECT_EQ(told["last_delivered"], Value(1'700'000'004));
        EXPECT_EQ(in(told, "spool", "files"), Value(0));
        EXPECT_EQ(in(told, "spool", "limit"), Value(1'000'000'000));
        const Dictionary counts = {{"records_read", 6},
                                   {"events_collected", 5},
                                   {"events_excluded", 0},
                                   {"events_delivered", 5},
                                   {"failures", Dictionary()}};
        EXPECT_EQ(told["counts"], Value(counts));
        const auto& task = *told["tasks"].array()->at(0).dictionary();
        EXPECT_EQ(task["name"], Value("EventCollection"));
        EXPECT_GE(task["next_run"].integerValue(), begun + 3600 - 60);
        const auto metrics = control({"status", "--prometheus"}).output;
        EXPECT_NE(metrics.find("\nsentrova_events_delivered_total 5\n"), std::string::npos) << metrics;

        std::vector<std::future<int>> askers;
        for (int i = 0; i < 8; ++i) {
            askers.push_back(std::async(std::launch::async, [this] { return control({"status", "--json"}).status; }));
        }
        for (auto& asker : askers) {
            EXPECT_EQ(asker.get(), 0);
        }
        EXPECT_EQ(agent.stop(), 0);
    }
    const auto before = listing();
    const auto told = statusWith(3);
    EXPECT_TRUE(told["pid"].isNull() && told["since"].isNull() && told["counts"].isNull());
    EXPECT_EQ(told["last_delivered"], Value(1'700'000'004));
    EXPECT_NE(control({"status", "--prometheus"}).output.find("\nsentrova_up 0\n"), std::string::npos);
    EXPECT_EQ(control({"sync"}).status, 3);
    EXPECT_EQ(listing(), before);
}

TEST_F(StatusTest, ServerThatFailsIsToldInWordsAndASyncEndsThePause) {
    configure();
    server.fail({.kind = Kind::drop, .count = -1});
    RunningAgent agent(build::kAgent, volume);
    // After a round over all addresses the agent pauses.
    ASSERT_TRUE(waitUntil([this] { return control({"status"}).output.find("connection_lost") != std::string::npos; }));
    const auto starting = statusWith(1, "sync");
    EXPECT_EQ(in(starting, "server", "reachable"), Value(false));
    server.clearFailures();
    server.fail({.kind = Kind::status, .status = 503, .count = -1});
    const auto failed = control({"sync"});
    EXPECT_EQ(failed.status, 1);
    EXPECT_NE(failed.problems.find("503"), std::string::npos) << failed.problems;
    EXPECT_EQ(failed.output, "");
    server.clearFailures();
    EXPECT_EQ(control({"sync"}).status, 0);
    statusWith(0);
    server.fail({.kind = Kind::drop, .count = -1});
    EXPECT_EQ(control({"sync"}).status, 1);
    statusWith(1, "not reachable");
    server.clearFailures();
    EXPECT_EQ(control({"sync"}).status, 0);
    const auto told = statusWith(0);
    EXPECT_NE(in(told, "server", "last_failure").description().find(std::to_string(server.port())), std::string::npos);
    EXPECT_EQ(agent.stop(), 0);
}

TEST_F(StatusTest, FirstSyncWithoutAnAnswerIsToldAndAFurtherSyncJoinsIt) {
    configure();
    server.fail({.kind = Kind::hold});
    RunningAgent agent(build::kAgent, volume);
    ASSERT_TRUE(server.waitForRequests(1));
    statusWith(1, "first sync");
    auto sync = std::async(std::launch::async, [this] { return control({"sync"}); });
    ASSERT_TRUE(
        waitUntil([this] { return textOf(volume.logs() / "status.json").find("\"asked\":1") != std::string::npos; }));
    server.release();
    const auto outcome = sync.get();
    EXPECT_EQ(outcome.status, 0) << outcome.problems;
    EXPECT_EQ(server.requests().size(), 1U);
    statusWith(0);
}

TEST_F(StatusTest, FullSpoolAndAuditingThatIsOffAreTold) {
    fs::remove(volume.auditPipe());
    serverInfo.set("EventsToRead", " AUE_sudo");
    serverInfo.set("MaxEventDataSize", 0);
    server.setAnswer(*Json::write(serverInfo));
    configure();
    RunningAgent agent(build::kAgent, volume);
    ASSERT_TRUE(waitForLog(volume, "Config", "reached max size"));
    const auto told = statusWith(1, "spool is full");
    EXPECT_EQ(told["auditing"], Value(false));
    const auto problems = told["problems"].description();
    EXPECT_NE(problems.find("auditing"), std::string::npos) << problems;
    EXPECT_NE(problems.find("EventsToRead"), std::string::npos) << problems;
}

TEST_F(StatusTest, LockAloneTellsAnAgentAndNoOtherProcessIsSignalled) {
    configure();
    // A signal would end this process.
    const pid_t bystander = ::fork();
    if (bystander == 0) {
        ::pause();
        ::_exit(0);
    }
    const auto lockFile = volume.conf() / "agent.lock";
    std::ofstream(lockFile) << bystander << "\n";
    statusWith(3, "not running");
    EXPECT_EQ(control({"sync"}).status, 3);
    {
        const FileDescriptor lock(::open(lockFile.c_str(), O_RDWR | O_CLOEXEC));
        ASSERT_EQ(::flock(lock.get(), LOCK_EX), 0);
        statusWith(1, "does not answer");
        EXPECT_EQ(control({"sync"}).status, 1);
    }
    for (const auto* const command : {"status", "sync"}) {
        const auto refused = control({command}, ControlUser::ordinary);
        EXPECT_EQ(refused.status, 77);
        EXPECT_EQ(refused.output, "");
        EXPECT_NE(refused.problems.find("root"), std::string::npos);
    }
    EXPECT_EQ(::waitpid(bystander, nullptr, WNOHANG), 0) << "the process was signalled";
    ::kill(bystander, SIGKILL);
    ::waitpid(bystander, nullptr, 0);
}

}  // namespace
}  // namespace sentrova::testing
