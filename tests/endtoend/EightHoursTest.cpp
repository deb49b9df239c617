// Eight hours of the agent's life, by a clock that is moved by hand.

#include "collection/EventCollector.h"
#include "core/AgentServiceHandler.h"
#include "forwarding/EventQueueGCD.h"
#include "forwarding/TransportEngine.h"
#include "foundation/FileDescriptor.h"
#include "foundation/Json.h"
#include "support/AgentFixture.h"
#include "support/TrailRecord.h"

#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include <gtest/gtest.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;

// Answers every request with 200 and keeps nothing but how often each event came, by process number.
class CountingSession final : public UrlSession {
  public:
    struct Account {
        std::mutex mutex;
        std::map<std::int64_t, int> arrivals;
    };

    explicit CountingSession(std::shared_ptr<Account> account) : account_(std::move(account)) {}

    void uploadTask(const UrlRequest& /*request*/, std::string body, Completion completionHandler) override {
        delegateQueue_.async([account = account_, body = std::move(body), completion = std::move(completionHandler)] {
            const auto parsed = Json::parse(body);
            if (const auto* events = parsed ? parsed->array() : nullptr) {
                const std::lock_guard lock(account->mutex);
                for (const auto& event : *events) {
                    ++account->arrivals[(*event.dictionary())["subject_pid"].integerValue()];
                }
            }
            completion(Data{'{', '}'}, UrlResponse{200}, std::nullopt);
        });
    }

  private:
    const std::shared_ptr<Account> account_;
    DispatchQueue delegateQueue_{"CountingSession"};
};

std::size_t entriesOf(const char* folder) {
    const std::filesystem::directory_iterator entries(folder);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

// Bytes that are allocated and not freed; 0 under a sanitizer, which allocates by itself.
std::size_t allocated() {
    return ::mallinfo2().uordblks;
}

struct Footprint {
    std::size_t descriptors = entriesOf("/proc/self/fd");
    std::size_t threads = entriesOf("/proc/self/task");
    std::size_t memory = allocated();
};

TEST(EightHoursTest, NothingIsLostAndNothingPilesUp) {
    if (::getuid() != 0) {
        GTEST_SKIP() << "the agent runs as root only";
    }
    constexpr int kMinutes = 8 * 60;
    constexpr std::uint32_t kRecordsAMinute = 20;

    AgentFixture agent;
    agent.serverInfo.set("IsRealTime", true);
    agent.serverInfo.set("NumberofEventsPerRequest", 50);
    agent.myConfigurations.set("LogLevel", 0);
    agent.writeConfiguration();
    agent.volume().addDomainUser("bruno", 700001, "S-1-5-21-1-2-3-1104", "CORP");
    const auto account = std::make_shared<CountingSession::Account>();
    TransportEngine::setSessionFactory(
        [account](const auto& /*delegate*/) { return std::make_unique<CountingSession>(account); });

    ASSERT_TRUE(AgentServiceHandler::initializeService());
    std::thread service([] { AgentServiceHandler::start(); });
    const FileDescriptor pipe(::open(agent.volume().auditPipe().c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_TRUE(AgentFixture::eventually(
        [] { return AgentServiceHandler::getOperationStatusOnMainQueue("EventCollectorRealtime"); }));

    std::uint32_t process = 1;
    std::optional<Footprint> afterAnHour;
    for (int minute = 1; minute <= kMinutes; ++minute) {
        agent.clock().advance(1min);
        const auto now = agent.clock().epochSeconds();
        for (std::uint32_t i = 0; i < kRecordsAMinute; ++i) {
            const Subject bruno = {700001, 700001, 20, 700001, 20, process++, 100012, 0, "0.0.0.0"};
            const auto bytes = TrailRecord(45028)
                                   .at(std::chrono::seconds(now - kRecordsAMinute + 1 + i))
                                   .subject(bruno)
                                   .returns(0)
                                   .bytes();
            ASSERT_EQ(::write(pipe.get(), bytes.data(), bytes.size()), std::ssize(bytes));
        }
        ASSERT_TRUE(AgentFixture::eventually([now] {
            return EventCollector::LastTimeStamp() == static_cast<std::uint64_t>(now);
        })) << minute;
        if (minute == 60) {
            afterAnHour.emplace();
        }
    }
    const auto arrived = [&] {
        const std::lock_guard lock(account->mutex);
        return account->arrivals.size();
    };
    // What is in memory goes out with its announcement.
    EXPECT_TRUE(AgentFixture::eventually([&] {
        agent.clock().advance(10s);
        return arrived() == kMinutes * kRecordsAMinute;
    }));
    {
        const std::lock_guard lock(account->mutex);
        for (const auto& [number, count] : account->arrivals) {
            ASSERT_EQ(count, 1) << number;
        }
    }
    EXPECT_EQ(agent.logged("WriteToProplist:failed"), 0);
    EXPECT_TRUE(std::filesystem::is_empty(agent.volume().eventData()));
    // Threads and descriptors come and go with the tasks of the moment.
    EXPECT_TRUE(AgentFixture::eventually([&] {
        const Footprint atTheEnd;
        return atTheEnd.descriptors <= afterAnHour->descriptors && atTheEnd.threads <= afterAnHour->threads;
    }));
    constexpr std::size_t kMebibyte = 1024 * 1024;
    EXPECT_LT(allocated(), afterAnHour->memory + kMebibyte);
    std::cout << afterAnHour->descriptors << " descriptors, " << afterAnHour->threads << " threads and "
              << afterAnHour->memory / 1024 << " KiB after an hour, " << allocated() / 1024 << " KiB after eight\n";

    AgentServiceHandler::stop();
    service.join();
}

}  // namespace
}  // namespace sentrova::testing
