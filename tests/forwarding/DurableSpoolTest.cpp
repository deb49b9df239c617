// The durable spool on a disk that forgets what was not flushed, against a model of what must be at the server.

#include "forwarding/DurableSpool.h"
#include "forwarding/RecordDigest.h"
#include "support/AgentFixture.h"
#include "support/CountingServer.h"
#include "support/ForgetfulFileSystem.h"
#include "support/Histories.h"

#include <algorithm>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;
using Crash = ForgetfulFileSystem::Crash;

constexpr std::uint64_t kRecordLength = 100;

// A trail of records of equal length. Each record has an event with its number, or none.
struct Trail {
    TrailIdentity identity;
    std::vector<std::optional<int>> records;
};

enum Kind : unsigned {
    kWrite,
    kNewTrail,
    kRead,
    kDevice,
    kWait,
    kDeliver,
    kStop,
    kKill,
    kPowerLoss,
    kCrashSoon,
    kFillDisk,
    kEmptyDisk,
    kShortMemory,
};
// Most steps are the ordinary ones.
const Shares kShares = {3, 3, 3, 3, 3, 3, 1, 1, 1, 1, 1, 1, 1};

// Memory runs out at one call.
class ScarceCryptography final : public Cryptography {
  public:
    explicit ScarceCryptography(const Cryptography& other) : other_(other) {}

    // The call with that number from now on fails; none if it is 0.
    void failAt(std::size_t number) { left_ = number; }
    bool hasFailed() const { return left_ == 0; }

    CipherResult aes256(std::span<const std::uint8_t> bytes, std::span<const std::uint8_t> key,
                        Direction direction) const override {
        return other_.aes256(bytes, key, direction);
    }
    std::array<std::uint8_t, kDigestBytes> sha256(std::span<const std::uint8_t> bytes) const override {
        count();
        return other_.sha256(bytes);
    }
    std::optional<Data> randomBytes(std::size_t length) const override {
        count();
        return other_.randomBytes(length);
    }

  private:
    void count() const {
        if (left_ > 0 && --left_ == 0) {
            throw std::bad_alloc();
        }
    }

    const Cryptography& other_;
    mutable std::size_t left_ = 0;
};

class World {
  public:
    explicit World(AgentFixture& fixture) : fixture_(fixture), folder_(fixture.volume().eventData()), disk_(folder_) {
        GlobalVariables::getInstance().setNoOfEventsPerRequest(5);
        trails_.push_back(newTrail());
        start();
    }

    void run(const Step& step) {
        try {
            tryToRun(step);
        } catch (const std::bad_alloc&) {
            // A reader or the forwarder ends its round, and comes again.
            ASSERT_TRUE(memory_.hasFailed());
        }
    }

  private:
    void tryToRun(const Step& step) {
        std::mt19937 random(step.random);
        switch (step.kind) {
            case kWrite:
                for (auto count = random() % 8 + 1; count > 0; --count) {
                    const bool isSelected = random() % 3 != 0;
                    trails_.back().records.push_back(isSelected ? std::optional(nextEvent_++) : std::nullopt);
                }
                break;
            case kNewTrail:
                trails_.push_back(newTrail());
                break;
            case kRead:
                read(random() % 12 + 1);
                break;
            case kDevice:
                fromDevice(random() % 2 == 0);
                break;
            case kWait:
                fixture_.clock().advance(std::chrono::milliseconds(random() % 15000));
                settle();
                break;
            case kDeliver:
                for (auto count = random() % 3 + 1; count > 0; --count) {
                    deliver(static_cast<unsigned>(random() % 10));
                }
                break;
            case kStop:
                spool_->close();
                start();
                break;
            case kKill:
            case kPowerLoss:
                crash(step.kind == kKill ? Crash::kill : Crash::powerLoss, step.random);
                break;
            case kCrashSoon:
                disk_.stopAfter(disk_.operations() + random() % 12);
                break;
            case kFillDisk:
                disk_.setCapacity(random() % 120'000);
                break;
            case kShortMemory:
                memory_.failAt(random() % 10 + 1);
                break;
            default:
                disk_.setCapacity(1 << 30);
        }
        if (disk_.isStopped()) {
            crash(nextCrash_.value_or(step.random % 2 == 0 ? Crash::kill : Crash::powerLoss), step.random);
        }
    }

  public:
    // The first crash comes at the operation of the disk with that number from now on.
    void crashAt(std::size_t number, Crash kind) {
        disk_.stopAfter(disk_.operations() + number);
        nextCrash_ = kind;
    }
    bool hasCrashed() const { return hasCrashed_; }
    ScarceCryptography& memory() { return memory_; }

    // How the last start finds the spool: as the history left it, after the mode was switched off, or damaged.
    enum Ending { kAsEver, kSwitchedOff, kDamaged, kEndings };

    // Everything works from now on: what is left arrives. Returns what is wrong, or nothing.
    std::string finish(Ending ending, unsigned seed) {
        disk_.setCapacity(1 << 30);
        spool_.reset();
        disk_.crash(Crash::kill, 1);
        if (ending == kDamaged) {
            damage(seed);
            // Nobody but the journal has what the device brought.
            mayBeLost_ = fromDevice_;
        }
        start(ending == kSwitchedOff ? DurableSpool::Mode::ending : DurableSpool::Mode::on);
        return deliverAll(ending);
    }

    // What the running spool has arrives, without a start that would read it again.
    std::string deliverAll(Ending ending = kAsEver) {
        fixture_.clock().advance(60s);
        settle();
        for (int round = 0; round < 20; ++round) {
            read(1'000'000);
            if (ending == kSwitchedOff && round == 0) {
                spool_->endCollection();
            }
            fixture_.clock().advance(48h);
            settle();
            while (deliver(0)) {
            }
            spool_->commitNow();
        }
        std::string wrong;
        for (int event = 0; event < nextEvent_; ++event) {
            const auto count = server_.count(event);
            const bool mayBeTwice = ending == kDamaged && count > 1;
            if (count != 1 && !mayBeTwice && !(count == 0 && mayBeLost_.contains(event))) {
                wrong += fmt::format("event {} arrived {} times\n", event, count);
            }
        }
        if (server_.arrived().size() > static_cast<std::size_t>(nextEvent_)) {
            wrong += "an event that never was\n";
        }
        spool_->close();
        for (const auto& file : std::filesystem::directory_iterator(folder_)) {
            const auto name = file.path().filename().string();
            const bool isKnown = name == ".journal" || name == ".position" || name.starts_with("altered_");
            if ((ending == kSwitchedOff || !isKnown) && !disk_.isTemporaryName(name)) {
                wrong += "left in the spool: " + name + "\n";
            }
        }
        return wrong;
    }

  private:
    Trail newTrail() {
        const auto number = trails_.size();
        return {.identity = {.device = 1, .inode = number, .firstRecord = fmt::format("first{}", number)},
                .records = {}};
    }

    // Changes a byte of a file, cuts the file off, or removes it.
    void damage(unsigned seed) {
        std::mt19937 random(seed);
        std::vector<std::filesystem::path> files;
        for (const auto& file : std::filesystem::directory_iterator(folder_)) {
            files.push_back(file.path());
        }
        std::ranges::sort(files);
        const auto& file = files.at(random() % files.size());
        if (random() % 4 == 0) {
            disk_.lose(file.string());
            return;
        }
        disk_.damage(file.string(), [&random](std::string& content) {
            const auto at = content.empty() ? 0 : random() % content.size();
            if (random() % 4 == 0) {
                content.resize(at);
            } else if (!content.empty()) {
                content[at] = static_cast<char>(content[at] ^ 4);
            }
        });
    }

    void start(DurableSpool::Mode mode = DurableSpool::Mode::on) {
        auto host = fixture_.host().host();
        memory_.failAt(0);
        spool_.reset();
        spool_.emplace(DurableSpool::Surroundings{.configuration = GlobalVariables::getInstance(),
                                                  .files = disk_,
                                                  .clock = host.clock,
                                                  .dates = *Current<DateFormat>::orNull(),
                                                  .cryptography = memory_},
                       DurableSpool::Hooks{});
        EXPECT_TRUE(spool_->open(mode, 0) || disk_.isStopped());
    }

    void settle() { spool_->onWork({}); }

    void read(std::size_t most) {
        std::map<TrailIdentity, TrailPosition> positions;
        for (const auto& position : spool_->positions()) {
            positions[position.trail] = position;
        }
        for (const auto& trail : trails_) {
            auto& position = positions[trail.identity];
            position.trail = trail.identity;
            while (position.offset / kRecordLength < trail.records.size() && most-- > 0) {
                const auto& record = trail.records[position.offset / kRecordLength];
                position.offset += kRecordLength;
                position.lastLength = kRecordLength;
                position.time = 1'700'000'000 + position.offset;
                auto event = record ? std::optional(Dictionary{{"n", *record}}) : std::nullopt;
                if (record && spool_->takeDeviceRecord(fmt::format("record{}", *record))) {
                    event.reset();
                }
                // While the disk is full, the reader gives up and comes again.
                if (!spool_->accept(std::move(event), position, [] { return true; })) {
                    return;
                }
                settle();
            }
            if (most == 0 || most > 1'000'000) {
                return;
            }
        }
    }

    // A record of the device, which a trail brings too, or not.
    void fromDevice(bool isInTrail) {
        const int event = nextEvent_++;
        mayBeLost_.insert(event);
        fromDevice_.insert(event);
        const bool accepted = spool_->acceptFromDevice({{"n", event}}, fmt::format("record{}", event), 1'700'000'000,
                                                       [] { return true; });
        settle();
        if (isInTrail) {
            trails_.back().records.emplace_back(event);
            mayBeLost_.erase(event);
            fromDevice_.erase(event);
        } else if (accepted && spool_->commitNow() && !disk_.isStopped()) {
            mayBeLost_.erase(event);
        }
    }

    bool deliver(unsigned answer) { return server_.answer(*spool_, answer); }

    void crash(Crash kind, unsigned seed) {
        hasCrashed_ = true;
        spool_.reset();
        disk_.crash(kind, seed);
        start();
    }

    AgentFixture& fixture_;
    ScarceCryptography memory_{fixture_.host().host().cryptography};
    const std::filesystem::path folder_;
    ForgetfulFileSystem disk_;
    std::vector<Trail> trails_;
    int nextEvent_ = 0;
    std::optional<Crash> nextCrash_;
    bool hasCrashed_ = false;
    std::set<int> mayBeLost_;
    std::set<int> fromDevice_;
    CountingServer server_{"n"};
    std::optional<DurableSpool> spool_;
};

std::string outcomeOf(const std::vector<Step>& steps, unsigned seed) {
    AgentFixture fixture;
    World world(fixture);
    for (const auto& step : steps) {
        world.run(step);
    }
    return world.finish(static_cast<World::Ending>(seed % World::kEndings), seed);
}

TEST(DurableSpoolTest, EachEventOfARandomHistoryArrivesOnce) {
    runHistories(300, kShares, outcomeOf);
}

constexpr std::array<Step, 12> kRun = {{{kWrite, 7},
                                        {kDevice, 2},
                                        {kRead, 1'000},
                                        {kWait, 900},
                                        {kDeliver, 5},
                                        {kNewTrail, 0},
                                        {kWrite, 3},
                                        {kRead, 1'000},
                                        {kWait, 14'000},
                                        {kDeliver, 9},
                                        {kDeliver, 11},
                                        {kWait, 2'000}}};

// A crash at every single write, flush, rename and deletion of a run, and a start from what is on the disk then.
TEST(DurableSpoolTest, EachEventArrivesOnceWhateverStepACrashCuts) {
    for (std::size_t number = 1;; ++number) {
        for (const auto kind : {Crash::kill, Crash::powerLoss}) {
            AgentFixture fixture;
            World world(fixture);
            world.crashAt(number, kind);
            for (const auto& step : kRun) {
                world.run(step);
            }
            const bool isOver = !world.hasCrashed();
            ASSERT_EQ(world.finish(World::kAsEver, 0), "") << "operation " << number;
            if (isOver) {
                std::cout << number << " operations\n";
                ASSERT_GT(number, 25U);
                return;
            }
        }
    }
}

// Digests and keys are made in the middle of the hand-over to the journal, of its writing and of a delivery.
TEST(DurableSpoolTest, EachEventArrivesOnceWhereverMemoryRunsOut) {
    for (std::size_t number = 1;; ++number) {
        AgentFixture fixture;
        World world(fixture);
        world.memory().failAt(number);
        for (const auto& step : kRun) {
            world.run(step);
        }
        const bool isOver = !world.memory().hasFailed();
        world.memory().failAt(0);
        ASSERT_EQ(world.deliverAll(), "") << "call " << number;
        if (isOver) {
            ASSERT_GT(number, 20U);
            return;
        }
    }
}

}  // namespace
}  // namespace sentrova::testing
