// Every file system call of the pipeline fails once, and no event is lost without a line in the log.

#include "collection/EventCollectionSchedule.h"
#include "collection/currentLoginUtility.h"
#include "core/GlobalVariables.h"
#include "endtoend/EndToEnd.h"
#include "forwarding/EventForwarder.h"
#include "forwarding/EventQueueGCD.h"
#include "forwarding/TransportEngine.h"
#include "platform/curl/CurlUrlSession.h"
#include "support/AgentFixture.h"
#include "support/FaultyFileSystem.h"
#include "sync/ServerCommunicator.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <regex>

#include <fmt/ranges.h>
#include <gtest/gtest.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;
using Fault = FaultyFileSystem::Fault;
using NetworkFault = AuditServer::Failure::Kind;

constexpr std::uint32_t kFirst = 100;
constexpr std::uint32_t kEvents = 10;
constexpr std::uint32_t kFirstAfterwards = 200;
constexpr std::uint32_t kEventsAfterwards = 4;

// The parts of the pipeline, connected as in the service, with batches of three events. The server refuses the first
// delivery, so that its events return to the spool.
class Pipeline : public AgentFixture {
  public:
    // Without a server, a fake session answers.
    explicit Pipeline(const AuditServer* server = nullptr) : server_(server) {
        if (server) {
            connect();
            serverInfo = loopbackConfiguration(server->port());
            serverInfo.set("NumberofEventsPerRequest", 3);
        }
        myConfigurations.set("LogLevel", 0);
        restartConfigured();
        session().respondWith([this](const FakeUrlSession::Sent& sent) { return answer(sent); });
    }
    ~Pipeline() { end(); }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    void begin() {
        GlobalVariables::getInstance().load();
        EventQueueGCD::init();
        currentLoginUtility::init();
        forwarder_ = EventForwarder::init();
        forwarder_->start();
    }

    void restartAgent() {
        end();
        begin();
    }

    // Adds a closed trail with records of the last seconds, and runs batch collection.
    void collect(std::uint32_t firstProcess, std::uint32_t records) {
        // Leaves a gap, because records of the seconds next to the newest one are not read again.
        clock().advance(1min);
        refusesNext_ = true;
        const auto begin = clock().epochSeconds() - records;
        for (std::uint32_t i = 0; i < records; ++i) {
            times_[firstProcess + i] = begin + i;
        }
        addTrail(volume(), sudoTrail(std::chrono::seconds(begin), firstProcess, records));
        collect();
    }
    void collect() { std::make_shared<EventCollectionSchedule>()->start(); }

    // Moves the clock until the condition holds. Synchronises when the server has become unreachable.
    bool passTimeUntil(const std::function<bool()>& condition) {
        return eventually([&] {
            if (condition()) {
                return true;
            }
            if (!TransportEngine::isConnected()) {
                ServerCommunicator().syncFromServer();
            }
            clock().advance(10s);
            EventQueueGCD::length();
            session().settle();
            return false;
        });
    }

    Processes arrivals() {
        if (server_) {
            return processesIn(server_->events());
        }
        const std::lock_guard lock(mutex_);
        return arrivals_;
    }
    std::int64_t missing(std::uint32_t first, std::uint32_t count, Processes accountedFor = {}) {
        accountedFor.merge(arrivals());
        const auto all = eachOnce(first, count);
        return std::ranges::count_if(all, [&](auto process) { return !accountedFor.contains(process); });
    }
    bool haveArrived(std::uint32_t first, std::uint32_t count) { return missing(first, count) == 0; }
    // Whether each of the first events has arrived, is reported as lost, or is in a file that could not be read.
    bool areAccountedFor() {
        const bool isUnreadable = errors().find("The spooled file cannot be read") != std::string::npos;
        return missing(kFirst, kEvents, isUnreadable ? spooled() : Processes()) == namedAsLost();
    }
    // How many events the log reports as lost; if a process is given, only batches whose time range covers its event.
    std::int64_t namedAsLost(std::optional<std::int64_t> process = {}) {
        static const std::regex line(R"(A batch of (\d+) events is lost, recorded from (\d+) to (\d+): )");
        const auto text = errors();
        std::int64_t count = 0;
        for (std::sregex_iterator match(text.begin(), text.end(), line), end; match != end; ++match) {
            const auto time = process ? times_.at(*process) : std::stoll((*match)[2]);
            const bool isMeant = std::stoll((*match)[2]) <= time && time <= std::stoll((*match)[3]);
            count += isMeant ? std::stoll((*match)[1]) : 0;
        }
        return count;
    }
    std::string errors() {
        std::string errors;
        for (const auto* category : {"Config", "Communication", "Event"}) {
            std::istringstream lines(logOf(volume(), category));
            for (std::string line; std::getline(lines, line);) {
                // A normal start logs one error line that contains a path.
                const bool tells =
                    line.find("[ERROR]") != std::string::npos && line.find("already exists") == std::string::npos;
                errors += tells ? line + "\n" : "";
            }
        }
        return errors;
    }
    Processes spooled() {
        Processes processes;
        for (const auto& file : std::filesystem::directory_iterator(volume().eventData())) {
            processes.merge(processesIn(textOf(file)));
        }
        return processes;
    }
    // The state, for the message of a failed check.
    std::string account() {
        return fmt::format("arrived: {}\nspooled: {}\nin memory: {}\n{}", arrivals(), spooled(),
                           EventQueueGCD::length(), errors());
    }

  private:
    void end() {
        forwarder_->cancel();
        EXPECT_TRUE(eventually([this] { return forwarder_.use_count() == 1; }));
        forwarder_.reset();
        if (server_) {
            // No completion comes when the session is gone.
            connect();
        }
        restart();
    }
    void connect() {
        real_.emplace(clock());
        real_->start();
        host().otherSession = &*real_;
    }

    FakeUrlSession::Answer answer(const FakeUrlSession::Sent& sent) {
        if (sent.request.url.ends_with("agentData")) {
            if (refusesNext_.exchange(false)) {
                return {500, ""};
            }
            const std::lock_guard lock(mutex_);
            arrivals_.merge(processesIn(sent.body));
        }
        return {};
    }

    const AuditServer* const server_;
    std::optional<platform::CurlUrlSession> real_;
    std::shared_ptr<EventForwarder> forwarder_;
    std::mutex mutex_;
    // The time of each event, by process id.
    std::map<std::int64_t, std::int64_t> times_;
    std::atomic<bool> refusesNext_ = false;
    Processes arrivals_;
};

bool isOfTheAgent(const std::string& path) {
    constexpr const char* kParts[] = {"conf/", "logs/", "eventData", "/var/audit"};
    return std::ranges::any_of(kParts, [&](const char* part) { return path.find(part) != std::string::npos; });
}

const std::pair<const char*, Fault> kKinds[] = {
    {"permission denied at open", {.call = FaultyFileSystem::kOpen, .error = EACCES}},
    {"interrupted open", {.call = FaultyFileSystem::kOpen, .error = EINTR}},
    {"failed read", {.call = FaultyFileSystem::kRead, .error = EIO}},
    {"interrupted read", {.call = FaultyFileSystem::kRead, .error = EINTR}},
    {"no space", {.call = FaultyFileSystem::kWrite, .error = ENOSPC}},
    {"short write", {.call = FaultyFileSystem::kWrite, .isShort = true}},
    {"short write, then no space", {.call = FaultyFileSystem::kWrite, .error = ENOSPC, .isShort = true}},
    {"interrupted write", {.call = FaultyFileSystem::kWrite, .error = EINTR}},
    {"failed flush", {.call = FaultyFileSystem::kFlush, .error = EIO}},
    {"interrupted flush", {.call = FaultyFileSystem::kFlush, .error = EINTR}},
    {"failed rename", {.call = FaultyFileSystem::kRename, .error = EIO}},
    {"failed removal", {.call = FaultyFileSystem::kRemove, .error = EACCES}},
    {"permission denied at status", {.call = FaultyFileSystem::kStatus, .error = EACCES}},
    {"permission denied at list", {.call = FaultyFileSystem::kList, .error = EACCES}},
};

// The outcome of a run with a fault: the number of calls of its kind, and the path that failed.
struct Outcome {
    std::size_t calls = 0;
    std::string met;
};

void expectNamed(const Fault& fault, const std::string& met, const std::string& errors) {
    const bool harmless = fault.number == 0 || fault.error == 0 || fault.error == EINTR;
    EXPECT_TRUE(met.empty() || harmless || errors.find(std::strerror(fault.error)) != std::string::npos ||
                errors.find(std::filesystem::path(met).filename().string()) != std::string::npos)
        << errors;
}

// Runs the whole pipeline with a fault; then a further trail and a second start without it.
Outcome travel(const Fault& fault) {
    FaultyFileSystem files(isOfTheAgent);
    Pipeline pipeline;
    pipeline.begin();
    files.arm(fault);
    pipeline.collect(kFirst, kEvents);
    EXPECT_TRUE(pipeline.passTimeUntil([&] {
        return pipeline.areAccountedFor() || pipeline.errors().find("/var/audit") != std::string::npos;
    })) << "at "
        << files.met() << "\n"
        << pipeline.account();
    const Outcome outcome{files.calls()[fault.call], files.met()};
    EXPECT_GT(outcome.calls, 0U);
    files.arm({});
    SCOPED_TRACE("at " + outcome.met);
    // The next pass reads what this pass could not. Everything is in the pipeline before the agent ends.
    pipeline.collect(kFirstAfterwards, kEventsAfterwards);
    EXPECT_TRUE(pipeline.passTimeUntil([&] {
        return pipeline.haveArrived(kFirstAfterwards, kEventsAfterwards) && pipeline.areAccountedFor();
    })) << pipeline.account();
    pipeline.restartAgent();
    pipeline.collect();
    EXPECT_TRUE(pipeline.passTimeUntil([&] { return pipeline.spooled().empty() && EventQueueGCD::length() == 0; }))
        << pipeline.account();

    const auto errors = pipeline.errors();
    // If the status of a file cannot be read, the agent may continue without it.
    if (fault.call != FaultyFileSystem::kStatus || !pipeline.haveArrived(kFirst, kEvents)) {
        expectNamed(fault, outcome.met, errors);
    }
    const bool sentAgain = errors.find("is still there") != std::string::npos;
    const auto arrived = pipeline.arrivals();
    EXPECT_FALSE(arrived.empty()) << pipeline.account();
    EXPECT_TRUE(std::ranges::all_of(
        arrived, [](auto process) { return process >= kFirst && process < kFirstAfterwards + kEventsAfterwards; }));
    for (auto process = kFirst; process < kFirst + kEvents; ++process) {
        const auto times = arrived.count(process);
        EXPECT_TRUE(times == 1 || (times == 2 && sentAgain) || (times == 0 && pipeline.namedAsLost(process) > 0))
            << process << " arrived " << times << " times\n"
            << errors;
    }
    EXPECT_EQ(pipeline.missing(kFirst, kEvents), pipeline.namedAsLost()) << errors;
    return outcome;
}

// Starts with a fault, then again without it. The second start finds everything intact.
Outcome begin(const Fault& fault) {
    FaultyFileSystem files(isOfTheAgent);
    Pipeline pipeline;
    files.arm(fault);
    pipeline.begin();
    const Outcome outcome{files.calls()[fault.call], files.met()};
    files.arm({});
    SCOPED_TRACE("at " + outcome.met);
    // Lines that could not be written come with the next line.
    pipeline.collect(kFirst - 1, 1);
    expectNamed(fault, outcome.met, pipeline.errors());
    pipeline.restartAgent();
    pipeline.collect(kFirst, kEvents);
    EXPECT_TRUE(pipeline.passTimeUntil([&] { return pipeline.haveArrived(kFirst, kEvents); })) << pipeline.errors();
    return outcome;
}

void tryEveryFault(Outcome (*go)(const Fault&)) {
    for (const auto& [name, kind] : kKinds) {
        auto fault = kind;
        const auto calls = go(fault).calls;
        for (fault.number = 1; fault.number <= calls && !::testing::Test::HasFatalFailure(); ++fault.number) {
            SCOPED_TRACE(fmt::format("{}, call {} of {}", name, fault.number, calls));
            go(fault);
        }
    }
}

TEST(FaultsTest, FaultAtAnyCallLosesNoEventWithoutALogLine) {
    tryEveryFault(travel);
}

TEST(FaultsTest, FaultAtAnyCallDuringTheStartDoesNoLastingDamage) {
    tryEveryFault(begin);
}

TEST(FaultsTest, NetworkTroubleAtAnyDeliveryLosesNoEvent) {
    // With the expected text in the log; none if the server accepts the events nevertheless. If the first request on a
    // kept-alive connection fails, the library sends it again itself. Five failures for four deliveries make one
    // delivery fail twice.
    const std::pair<AuditServer::Failure, const char*> troubles[] = {
        {{.status = 503}, "(null)"},
        {{.kind = NetworkFault::drop, .count = 5}, "connection was lost"},
        {{.kind = NetworkFault::reset, .count = 5}, "connection was lost"},
        {{.kind = NetworkFault::halfClose, .count = 5}, "connection was lost"},
        {{.kind = NetworkFault::raw, .body = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n{}"}, "connection was lost"},
        {{.kind = NetworkFault::endless}, "exceeds the maximum"},
        {{.kind = NetworkFault::noAnswer}, "timed out"},
        {{.kind = NetworkFault::raw,
          .accepts = true,
          .pace = 1ms,
          .body = "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\n{}"},
         ""}};
    // Ten events in batches of three.
    constexpr int kDeliveries = 4;
    int punctual = 0;
    for (const auto& [failure, named] : troubles) {
        for (int after = 0; after < kDeliveries; ++after) {
            SCOPED_TRACE(fmt::format("{} at delivery {}", static_cast<int>(failure.kind), after + 1));
            auto trouble = failure;
            trouble.after = after;
            trouble.path = AuditServer::kEventsPath;
            AuditServer server;
            server.fail(trouble);
            Pipeline pipeline(&server);
            pipeline.begin();
            pipeline.collect(kFirst, kEvents);
            EXPECT_TRUE(pipeline.passTimeUntil([&] { return pipeline.haveArrived(kFirst, kEvents); }))
                << pipeline.account();
            const auto errors = pipeline.errors();
            // The clock is so fast that any delivery may time out first.
            const bool late = errors.find("timed out") != std::string::npos;
            punctual += late ? 0 : 1;
            EXPECT_TRUE(late || errors.find(named) != std::string::npos) << errors;
            const auto arrived = pipeline.arrivals();
            EXPECT_TRUE(late || arrived == eachOnce(kFirst, kEvents)) << fmt::format("{}\n{}", arrived, errors);
            EXPECT_EQ(Processes(arrived.lower_bound(kFirst), arrived.upper_bound(kFirst + kEvents - 1)), arrived);
        }
    }
    EXPECT_GT(punctual, 0);
}

}  // namespace
}  // namespace sentrova::testing
