// The agent killed at random moments of a run with a backlog, and started again each time: what becomes of every event.

#include "BuildPaths.h"
#include "support/AuditServer.h"
#include "support/RunningAgent.h"
#include "support/SystemVolume.h"
#include "support/TrailWriter.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t kBatch = 20;
// Of a trail: some batches that become files, and a rest that stays in memory for ten seconds.
constexpr std::uint32_t kRecords = 6 * kBatch + kBatch / 2;
constexpr std::int64_t kFirstSecond = 1'700'000'000;
// So many seconds after a trail's first record the next trail begins.
constexpr std::int64_t kTrailsApart = 1000;

using Events = std::set<std::int64_t>;

void addEventsIn(const std::string& text, Events& events) {
    static const std::regex key(R"re("subject_pid":(\d+))re");
    for (std::sregex_iterator match(text.begin(), text.end(), key), end; match != end; ++match) {
        events.insert(std::stoll((*match)[1]));
    }
}

// What a killed agent has left behind, and what it had begun to send.
struct Remains {
    std::int64_t storedTime = 0;
    Events spooled;
    Events unfinished;
    Events requested;
};

class KillTest : public ::testing::Test {
  protected:
    KillTest() {
        auto configuration = loopbackConfiguration(server_.port());
        configuration.set("NumberofEventsPerRequest", kBatch);
        volume_.writeConfiguration("Serverinfo.plist", configuration);
        volume_.writeConfiguration(
            "myconfigurations.plist",
            {{"TimestampOfLastEvent", "0"}, {"LogLevel", 2}, {"AgentVersion", "1.0"}, {"CommunicationType", 1}});
    }

    // Process numbers count through all trails; the events of one are a second apart.
    void addTrail() {
        TrailWriter trail;
        for (std::uint32_t i = 0; i < kRecords; ++i, ++records_) {
            trail.add(TrailRecord(45028)
                          .at(std::chrono::seconds(timeOf(records_)))
                          .subject({.auditId = 4001, .processId = records_})
                          .returns(0));
        }
        volume_.addTrail(std::to_string(trail.lastTime().count()), trail.bytes(), trail.lastTime());
    }
    static std::int64_t timeOf(std::int64_t process) {
        return kFirstSecond + process / kRecords * kTrailsApart + process % kRecords;
    }

    Remains lookAtRemains() {
        Remains remains;
        remains.storedTime = volume_.readConfiguration("myconfigurations.plist")["TimestampOfLastEvent"].integerValue();
        for (const auto& file : std::filesystem::directory_iterator(volume_.eventData())) {
            std::ostringstream text;
            text << std::ifstream(file.path()).rdbuf();
            addEventsIn(text.str(),
                        file.path().filename().string().starts_with('.') ? remains.unfinished : remains.spooled);
        }
        std::istringstream log(logOf(volume_, "Config"));
        for (std::string line; std::getline(log, line);) {
            if (line.find("Dequeued array=") != std::string::npos) {
                addEventsIn(line, remains.requested);
            }
        }
        std::filesystem::remove_all(volume_.logs());
        std::filesystem::create_directories(volume_.logs() / "archive");
        return remains;
    }

    int arrivalsOf(std::int64_t process) {
        const std::lock_guard lock(mutex_);
        const auto found = arrivals_.find(process);
        return found == arrivals_.end() ? 0 : found->second;
    }

    // At which step an event that never arrived was lost: the kill after which it was neither read nor sent again.
    std::string stepOfLoss(std::int64_t process) const {
        std::int64_t formerTime = 0;
        for (std::size_t kill = 0; kill < remains_.size(); ++kill) {
            const auto& after = remains_[kill];
            if (timeOf(process) <= after.storedTime && !after.spooled.contains(process)) {
                if (after.requested.contains(process)) {
                    return "lost: its request had begun, and its file was gone";
                }
                if (after.unfinished.contains(process)) {
                    return "lost: its file was being written, its time was stored";
                }
                return formerTime < timeOf(process) ? "lost: in memory, its time was stored" : "";
            }
            formerTime = after.storedTime;
        }
        return "";
    }

    // Why an event arrived more than once: the kill after which it was read or sent again.
    std::string stepOfRepetition(std::int64_t process) const {
        bool wasRequested = false;
        for (const auto& after : remains_) {
            wasRequested = wasRequested || after.requested.contains(process);
            const bool wasSpooled = after.spooled.contains(process);
            if (timeOf(process) > after.storedTime && (wasRequested || wasSpooled)) {
                return wasRequested ? "twice: delivered, its time was not stored"
                                    : "twice: in a file, its time was not stored";
            }
            if (wasRequested && wasSpooled) {
                return "twice: delivered, its file was not yet deleted";
            }
        }
        return "";
    }

    std::mutex mutex_;
    std::map<std::int64_t, int> arrivals_;
    AuditServer server_{{.onEvent = [this](const std::string& event) {
        Events one;
        addEventsIn(event, one);
        const std::lock_guard lock(mutex_);
        ++arrivals_[*one.begin()];
    }}};
    SystemVolume volume_;
    std::uint32_t records_ = 0;
    std::vector<Remains> remains_;
};

// SENTROVA_KILLS and SENTROVA_KILL_SEED take the place of the numbers here.
TEST_F(KillTest, EveryLossAndEveryRepetitionHasAStepThatExplainsIt) {
    const auto setting = [](const char* name, unsigned long fallback) {
        const char* const text = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
        return text ? std::strtoul(text, nullptr, 10) : fallback;
    };
    const auto kills = setting("SENTROVA_KILLS", 10);
    const auto seed = setting("SENTROVA_KILL_SEED", 20261123);
    std::mt19937 random(static_cast<std::mt19937::result_type>(seed));

    // A run that is let be, for the length of a run.
    addTrail();
    const auto began = std::chrono::steady_clock::now();
    {
        RunningAgent agent(build::kAgent, volume_);
        ASSERT_TRUE(waitUntil([this] { return arrivalsOf(kRecords - kBatch) > 0; })) << logOf(volume_, "Config");
        const auto length = std::chrono::steady_clock::now() - began;
        std::cout << "seed " << seed << ", a run takes " << length / 1ms << " ms\n";
        agent.signal(SIGKILL);
        agent.wait();
        remains_.push_back(lookAtRemains());
        std::uniform_real_distribution<> moment(0, 1.5);
        for (unsigned long i = 1; i < kills; ++i) {
            addTrail();
            RunningAgent killed(build::kAgent, volume_);
            // The moment of the kill; nothing is waited for.
            std::this_thread::sleep_for(length * moment(random));
            killed.signal(SIGKILL);
            ASSERT_EQ(killed.wait(), 128 + SIGKILL);
            remains_.push_back(lookAtRemains());
        }
    }
    addTrail();
    RunningAgent last(build::kAgent, volume_);
    const bool isQuiet =
        waitUntil([this] { return arrivalsOf(records_ - 1) > 0 && std::filesystem::is_empty(volume_.eventData()); });
    EXPECT_EQ(last.stop(), 0);
    ASSERT_TRUE(isQuiet) << arrivalsOf(records_ - 1) << " " << logOf(volume_, "Event");

    std::map<std::string, int> table;
    for (std::int64_t process = 0; process < records_; ++process) {
        const int arrivals = arrivalsOf(process);
        const auto step = arrivals == 1   ? "delivered once"
                          : arrivals == 0 ? stepOfLoss(process)
                                          : stepOfRepetition(process);
        EXPECT_FALSE(step.empty()) << process << " arrived " << arrivals << " times";
        ++table[step];
    }
    const std::lock_guard lock(mutex_);
    EXPECT_LT(arrivals_.rbegin()->first, records_) << "an event that never was";
    std::cout << kills << " kills, " << records_ << " events\n";
    for (const auto& [step, count] : table) {
        std::cout << fmt::format("{:8} {}\n", count, step);
    }
    // No kill loses more from memory than a batch.
    EXPECT_LE(table["lost: in memory, its time was stored"], static_cast<int>(kills * kBatch));
}

}  // namespace
}  // namespace sentrova::testing
