// Every single call of an event's road fails once, and no event goes missing without a word.

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

// The parts that an event passes through, joined as the service joins them, with batches of three events. The server
// refuses the first delivery, so that its events take the way back, too.
class Road : public AgentFixture {
  public:
    // Without a server on loopback the network is left out.
    explicit Road(const AuditServer* server = nullptr) : server_(server) {
        if (server) {
            connect();
            serverInfo = loopbackConfiguration(server->port());
            serverInfo.set("NumberofEventsPerRequest", 3);
        }
        myConfigurations.set("LogLevel", 0);
        restartConfigured();
        session().respondWith([this](const FakeUrlSession::Sent& sent) { return answer(sent); });
    }
    ~Road() { end(); }
    Road(const Road&) = delete;
    Road& operator=(const Road&) = delete;

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

    // A closed trail with records of the last seconds, and a pass over the trails.
    void collect(std::uint32_t firstProcess, std::uint32_t records) {
        // Records of the seconds right after the newest one are not read again.
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

    // Lets time pass until the condition holds, with a synchronisation where the server has become unreachable.
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
    // Whether each of the first events has arrived, is named as lost, or lies in a file that could not be read.
    bool areAccountedFor() {
        const bool isUnreadable = errors().find("The spooled file cannot be read") != std::string::npos;
        return missing(kFirst, kEvents, isUnreadable ? spooled() : Processes()) == namedAsLost();
    }
    // How many events of that one's time, or of any, the log names as lost.
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
                // One line of a healthy start names a path as well.
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
    // For the message of a failure.
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
    // When each event was recorded.
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

// What became of an agent that met a fault: the calls of its kind there were, and where it was met.
struct Journey {
    std::size_t calls = 0;
    std::string met;
};

void expectNamed(const Fault& fault, const std::string& met, const std::string& errors) {
    const bool harmless = fault.number == 0 || fault.error == 0 || fault.error == EINTR;
    EXPECT_TRUE(met.empty() || harmless || errors.find(std::strerror(fault.error)) != std::string::npos ||
                errors.find(std::filesystem::path(met).filename().string()) != std::string::npos)
        << errors;
}

// The whole road under a fault; then a further trail, and a second start without one.
Journey travel(const Fault& fault) {
    FaultyFileSystem files(isOfTheAgent);
    Road road;
    road.begin();
    files.arm(fault);
    road.collect(kFirst, kEvents);
    EXPECT_TRUE(road.passTimeUntil([&] {
        return road.areAccountedFor() || road.errors().find("/var/audit") != std::string::npos;
    })) << "at "
        << files.met() << "\n"
        << road.account();
    const Journey journey{files.calls()[fault.call], files.met()};
    EXPECT_GT(journey.calls, 0U);
    files.arm({});
    SCOPED_TRACE("at " + journey.met);
    // What a pass could not read, the next one reads; all is on its way before the agent ends.
    road.collect(kFirstAfterwards, kEventsAfterwards);
    EXPECT_TRUE(road.passTimeUntil([&] {
        return road.haveArrived(kFirstAfterwards, kEventsAfterwards) && road.areAccountedFor();
    })) << road.account();
    road.restartAgent();
    road.collect();
    EXPECT_TRUE(road.passTimeUntil([&] { return road.spooled().empty() && EventQueueGCD::length() == 0; }))
        << road.account();

    const auto errors = road.errors();
    // Where a look at a file failed, the agent may do without.
    if (fault.call != FaultyFileSystem::kStatus || !road.haveArrived(kFirst, kEvents)) {
        expectNamed(fault, journey.met, errors);
    }
    const bool sentAgain = errors.find("is still there") != std::string::npos;
    const auto arrived = road.arrivals();
    EXPECT_FALSE(arrived.empty()) << road.account();
    EXPECT_TRUE(std::ranges::all_of(
        arrived, [](auto process) { return process >= kFirst && process < kFirstAfterwards + kEventsAfterwards; }));
    for (auto process = kFirst; process < kFirst + kEvents; ++process) {
        const auto times = arrived.count(process);
        EXPECT_TRUE(times == 1 || (times == 2 && sentAgain) || (times == 0 && road.namedAsLost(process) > 0))
            << process << " arrived " << times << " times\n"
            << errors;
    }
    EXPECT_EQ(road.missing(kFirst, kEvents), road.namedAsLost()) << errors;
    return journey;
}

// A start under a fault, and a second one without it, which finds everything as it was.
Journey begin(const Fault& fault) {
    FaultyFileSystem files(isOfTheAgent);
    Road road;
    files.arm(fault);
    road.begin();
    const Journey journey{files.calls()[fault.call], files.met()};
    files.arm({});
    SCOPED_TRACE("at " + journey.met);
    // What the log could not take, it takes with its next line.
    road.collect(kFirst - 1, 1);
    expectNamed(fault, journey.met, road.errors());
    road.restartAgent();
    road.collect(kFirst, kEvents);
    EXPECT_TRUE(road.passTimeUntil([&] { return road.haveArrived(kFirst, kEvents); })) << road.errors();
    return journey;
}

void tryEveryFault(Journey (*go)(const Fault&)) {
    for (const auto& [name, kind] : kKinds) {
        auto fault = kind;
        const auto calls = go(fault).calls;
        for (fault.number = 1; fault.number <= calls && !::testing::Test::HasFatalFailure(); ++fault.number) {
            SCOPED_TRACE(fmt::format("{}, call {} of {}", name, fault.number, calls));
            go(fault);
        }
    }
}

TEST(FaultsTest, FaultAtAnyCallLosesNoEventWithoutNamingIt) {
    tryEveryFault(travel);
}

TEST(FaultsTest, FaultAtAnyCallDuringTheStartDoesNoLastingDamage) {
    tryEveryFault(begin);
}

TEST(FaultsTest, NetworkTroubleAtAnyDeliveryLosesNoEvent) {
    // With what the log says; nothing where the events have been accepted all the same. Where the first sending on a
    // connection that was kept alive fails, the library sends once more by itself. With more failures than there are
    // deliveries, one of them fails twice.
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
            Road road(&server);
            road.begin();
            road.collect(kFirst, kEvents);
            EXPECT_TRUE(road.passTimeUntil([&] { return road.haveArrived(kFirst, kEvents); })) << road.account();
            const auto errors = road.errors();
            // Time goes by so fast here that any delivery may time out before anything else becomes of it.
            const bool late = errors.find("timed out") != std::string::npos;
            punctual += late ? 0 : 1;
            EXPECT_TRUE(late || errors.find(named) != std::string::npos) << errors;
            const auto arrived = road.arrivals();
            EXPECT_TRUE(late || arrived == eachOnce(kFirst, kEvents)) << fmt::format("{}\n{}", arrived, errors);
            EXPECT_EQ(Processes(arrived.lower_bound(kFirst), arrived.upper_bound(kFirst + kEvents - 1)), arrived);
        }
    }
    EXPECT_GT(punctual, 0);
}

}  // namespace
}  // namespace sentrova::testing
