// Kills the agent at random moments of a run with a backlog, restarts it each time, and accounts for every event.

#include "endtoend/EndToEnd.h"

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <random>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;

constexpr std::uint32_t kBatch = 20;
// Records per trail: some full batches, which become files, and a rest that stays in memory for ten seconds.
constexpr std::uint32_t kRecords = 6 * kBatch + kBatch / 2;

// Process ids count through all trails. Events of a trail are one second apart, trails a thousand seconds.
std::int64_t timeOf(std::int64_t process) {
    return 1'700'000'000 + process / kRecords * 1000 + process % kRecords;
}

// What a killed agent left behind, and what it had begun to send.
struct Remains {
    std::int64_t storedTime = 0;
    Processes spooled;
    Processes unfinished;
    Processes requested;
};

class KillTest : public EndToEnd {
  protected:
    KillTest() {
        serverInfo.set("NumberofEventsPerRequest", kBatch);
        configure();
    }

    void addNextTrail() {
        addTrail(volume, sudoTrail(std::chrono::seconds(timeOf(records_)), records_, kRecords));
        records_ += kRecords;
    }

    void lookAtRemains() {
        auto& remains = remains_.emplace_back();
        remains.storedTime = volume.readConfiguration("myconfigurations.plist")["TimestampOfLastEvent"].integerValue();
        for (const auto& file : std::filesystem::directory_iterator(volume.eventData())) {
            const bool isWhole = !file.path().filename().string().starts_with('.');
            (isWhole ? remains.spooled : remains.unfinished).merge(processesIn(textOf(file)));
        }
        std::istringstream lines(log());
        for (std::string line; std::getline(lines, line);) {
            if (line.find("Dequeued array=") != std::string::npos) {
                remains.requested.merge(processesIn(line));
            }
        }
        removeLogs();
    }

    // The step that lost an event: the kill after which the event was neither read nor sent again.
    std::string stepOfLoss(std::int64_t process) const {
        std::int64_t formerTime = 0;
        for (const auto& after : remains_) {
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

    // The step that repeated an event: the kill after which the event was read or sent again.
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

    std::uint32_t records_ = 0;
    std::vector<Remains> remains_;
};

// SENTROVA_KILLS and SENTROVA_KILL_SEED override the numbers here.
TEST_F(KillTest, EveryLossAndEveryRepetitionIsExplainedByAKnownStep) {
    const auto setting = [](const char* name, unsigned long fallback) {
        const char* const text = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
        return text ? std::strtoul(text, nullptr, 10) : fallback;
    };
    const auto kills = setting("SENTROVA_KILLS", 10);
    const auto seed = setting("SENTROVA_KILL_SEED", 20261123);
    std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
    std::uniform_real_distribution<> moment(0, 1.5);

    // The first run is not killed early; it measures the length of a run.
    std::chrono::steady_clock::duration length{};
    for (unsigned long kill = 0; kill < kills; ++kill) {
        addNextTrail();
        const auto began = std::chrono::steady_clock::now();
        RunningAgent agent(build::kAgent, volume);
        if (kill == 0) {
            ASSERT_TRUE(server.waitForEvents(kRecords - kBatch + 1)) << log();
            length = std::chrono::steady_clock::now() - began;
            std::cout << "seed " << seed << ", a run takes " << length / 1ms << " ms\n";
        } else {
            // A random moment for the kill, not a wait for a condition.
            std::this_thread::sleep_for(length * moment(random));
        }
        agent.signal(SIGKILL);
        ASSERT_EQ(agent.wait(), 128 + SIGKILL);
        lookAtRemains();
    }
    addNextTrail();
    RunningAgent last(build::kAgent, volume);
    const bool isQuiet = waitUntil([this] {
        return std::filesystem::is_empty(volume.eventData()) && processesIn(server.events()).contains(records_ - 1);
    });
    EXPECT_EQ(last.stop(), 0);
    ASSERT_TRUE(isQuiet) << log("Event");

    const auto arrived = processesIn(server.events());
    std::map<std::string, int> table;
    for (std::int64_t process = 0; process < records_; ++process) {
        const auto arrivals = arrived.count(process);
        const auto step = arrivals == 1   ? "delivered once"
                          : arrivals == 0 ? stepOfLoss(process)
                                          : stepOfRepetition(process);
        EXPECT_FALSE(step.empty()) << process << " arrived " << arrivals << " times";
        ++table[step];
    }
    EXPECT_LT(*arrived.rbegin(), records_) << "an event that never was";
    std::cout << kills << " kills, " << records_ << " events\n";
    for (const auto& [step, count] : table) {
        std::cout << fmt::format("{:8} {}\n", count, step);
    }
    // A kill loses at most one batch from memory.
    EXPECT_LE(table["lost: in memory, its time was stored"], static_cast<int>(kills * kBatch));
}

}  // namespace
}  // namespace sentrova::testing
