// Ends the agent of the durable mode at random moments, again and again, while the system writes records and the server
// answers badly half of the time. Afterwards each event must have arrived, and none twice.

#include "endtoend/EndToEnd.h"
#include "foundation/files/FileDescriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
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

class DurableKillTest : public EndToEnd {
  protected:
    DurableKillTest() : seed_(static_cast<unsigned>(setting("SENTROVA_KILL_SEED", 20261123))), random_(seed_) {
        serverInfo.set("NumberofEventsPerRequest", 20);
        serverInfo.set("IsRealTime", true);
        mine.set("DurableDelivery", true);
        mine.set("LogLevel", 0);
        configure();
        pipe_ = FileDescriptor(::open(volume.auditPipe().c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        beginTrail();
    }

    static unsigned long setting(const char* name, unsigned long fallback) {
        const char* const text = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
        return text ? std::strtoul(text, nullptr, 10) : fallback;
    }

    void beginTrail() {
        open_ = volume.auditFolder() / fmt::format("{:014}.not_terminated", ++trails_);
        std::ofstream(open_, std::ios::binary);
        std::filesystem::remove(volume.auditFolder() / "current");
        std::filesystem::create_symlink(open_.filename(), volume.auditFolder() / "current");
    }

    // As at a rotation: the open trail is renamed, and a new one begun.
    void rotate() {
        std::filesystem::rename(open_, volume.auditFolder() / fmt::format("{0:014}.{0:014}", trails_));
        beginTrail();
    }

    // As the kernel does it: the trail first, then the device, which may be full.
    void write(unsigned records) {
        for (; records > 0; --records) {
            const auto bytes = sudoRecord(begin_ + std::chrono::seconds(records_ / 10), records_).bytes();
            ++records_;
            std::ofstream(open_, std::ios::binary | std::ios::app)
                .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
            static_cast<void>(!::write(pipe_.get(), bytes.data(), bytes.size()));
        }
    }

    // A device keeps nothing for a reader that is gone.
    void emptyPipe() {
        std::array<char, 65536> bytes;
        while (::read(pipe_.get(), bytes.data(), bytes.size()) > 0) {
        }
    }

    // One run of the agent, during which records are written, and then the signal.
    void runAndEnd(int signal) {
        RunningAgent agent(build::kAgent, volume);
        const auto pauses = random_() % 8;
        for (unsigned i = 0; i < pauses; ++i) {
            write(static_cast<unsigned>(random_() % 12));
            if (random_() % 10 == 0) {
                rotate();
            }
            // A random moment for the end, not a wait for a condition.
            std::this_thread::sleep_for(std::chrono::milliseconds(random_() % 40));
        }
        agent.signal(signal);
        const auto status = agent.wait();
        // SIGTERM ends an agent that has just begun like any program.
        ASSERT_TRUE(status == 128 + signal || (status == 0 && signal == SIGTERM)) << log();
        emptyPipe();
    }

    // Every second answer is bad: 500, late, or none although the batch was accepted.
    void answerBadly(const std::atomic<bool>& isEnded) {
        std::mt19937 random(seed_);
        using Kind = AuditServer::Failure::Kind;
        while (!isEnded) {
            const std::array<AuditServer::Failure, 3> failures = {{
                {.kind = Kind::status, .path = AuditServer::kEventsPath, .status = 500, .after = 1},
                {.kind = Kind::hold, .path = AuditServer::kEventsPath, .after = 1},
                {.kind = Kind::drop, .path = AuditServer::kEventsPath, .accepts = true, .after = 1},
            }};
            server.fail(failures.at(random() % failures.size()));
            std::this_thread::sleep_for(10ms);
            server.release();
        }
    }

    void endAgainAndAgain(int signal, unsigned long times) {
        std::cout << "seed " << seed_ << '\n';
        std::atomic<bool> isEnded = false;
        std::thread badly([&] { answerBadly(isEnded); });
        for (unsigned long i = 0; i < times && !HasFatalFailure(); ++i) {
            runAndEnd(signal);
        }
        isEnded = true;
        badly.join();
        const auto before = server.events();
        server.clearFailures();
        RunningAgent last(build::kAgent, volume);
        const bool arrived = waitUntil([this] { return processesIn(server.events()).size() >= records_; });
        EXPECT_TRUE(arrived) << log();
        EXPECT_EQ(processesIn(server.events()), eachOnce(0, records_));
        EXPECT_TRUE(server.keyFaults().empty());
        std::cout << times << " ends, " << records_ << " events, " << before.size()
                  << " of them before the last start, " << server.requests().size() << " requests\n";
    }

    const unsigned seed_;
    std::mt19937 random_;
    FileDescriptor pipe_;
    std::filesystem::path open_;
    unsigned trails_ = 0;
    // The time of the first record.
    std::chrono::seconds begin_ = 1'700'000'000s;
    std::uint32_t records_ = 0;
};

// SENTROVA_DURABLE_KILLS, SENTROVA_DURABLE_STOPS and SENTROVA_KILL_SEED override the numbers here.
TEST_F(DurableKillTest, NoEventIsLostOrCountedTwiceByKills) {
    endAgainAndAgain(SIGKILL, setting("SENTROVA_DURABLE_KILLS", 15));
}

TEST_F(DurableKillTest, NoEventIsLostOrCountedTwiceByStops) {
    endAgainAndAgain(SIGTERM, setting("SENTROVA_DURABLE_STOPS", 5));
}

TEST_F(DurableKillTest, ModeIsSwitchedOffAndOnAgainWithoutLoss) {
    const auto setMode = [this](bool isOn) {
        auto stored = volume.readConfiguration("myconfigurations.plist");
        stored.set("DurableDelivery", isOn);
        volume.writeConfiguration("myconfigurations.plist", stored);
    };
    // What the killed agent had accepted, tried to send, or not read at all.
    server.fail({.path = AuditServer::kEventsPath, .status = 500, .count = -1});
    write(50);
    for (int i = 0; i < 3; ++i) {
        runAndEnd(SIGKILL);
    }
    server.clearFailures();

    setMode(false);
    {
        RunningAgent agent(build::kAgent, volume);
        EXPECT_TRUE(waitUntil([this] {
            return processesIn(server.events()).size() >= records_ &&
                   !std::filesystem::exists(volume.eventData() / ".journal");
        })) << log();
        agent.stop();
    }
    EXPECT_EQ(processesIn(server.events()), eachOnce(0, records_));

    setMode(true);
    // Without the mode, each opened trail moves the stored time on by a second.
    begin_ += 1000s;
    write(30);
    RunningAgent agent(build::kAgent, volume);
    EXPECT_TRUE(waitUntil([this] { return processesIn(server.events()).contains(records_ - 1); })) << log();
    const auto arrived = processesIn(server.events());
    for (std::uint32_t record = 0; record < records_; ++record) {
        EXPECT_TRUE(arrived.contains(record)) << record;
    }
}

}  // namespace
}  // namespace sentrova::testing
