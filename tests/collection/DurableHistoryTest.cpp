// The durable collection and spool on real trail files, in random histories: records, rotations, the live device's
// records, answers of every kind, stops, kills, losses of power, changes of the clock, and the mode switched off and
// on.

#include "collection/DurableCollection.h"
#include "forwarding/RecordDigest.h"
#include "foundation/run/Current.h"
#include "support/AgentFixture.h"
#include "support/CountingServer.h"
#include "support/ForgetfulFileSystem.h"
#include "support/Histories.h"
#include "volume/TrailRecord.h"

#include <fstream>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;
using Crash = ForgetfulFileSystem::Crash;

enum Kind : unsigned { kWrite, kRotate, kRead, kDevice, kWait, kSetClock, kDeliver, kStop, kKill, kPowerLoss, kSwitch };
const Shares kShares = {4, 1, 3, 2, 3, 1, 4, 1, 1, 1, 1};

class Mac {
  public:
    explicit Mac(AgentFixture& fixture) : fixture_(fixture), disk_(fixture.volume().eventData()) {
        GlobalVariables::getInstance().setNoOfEventsPerRequest(5);
        GlobalVariables::getInstance().setIsRealTime(false);
        start(DurableSpool::Mode::on);
    }
    ~Mac() { end(); }
    Mac(const Mac&) = delete;
    Mac& operator=(const Mac&) = delete;

    void run(const Step& step) {
        std::mt19937 random(step.random);
        switch (step.kind) {
            case kWrite:
                for (auto count = random() % 8 + 1; count > 0; --count) {
                    write(random() % 3 != 0 ? newRecord() : noise());
                }
                break;
            case kRotate:
                rotate();
                break;
            case kRead:
                read(static_cast<unsigned>(random() % 40));
                break;
            case kDevice:
                fromDevice(random() % 2 == 0);
                break;
            case kWait:
                fixture_.clock().advance(std::chrono::milliseconds(random() % 15000));
                settle();
                break;
            case kSetClock:
                fixture_.clock().setWallTime(dateFromEpoch(1.7e9 + static_cast<double>(random() % 100'000'000)));
                break;
            case kDeliver:
                for (auto count = random() % 3 + 1; count > 0; --count) {
                    server_.answer(*spool_, static_cast<unsigned>(random() % 9));
                }
                break;
            case kStop:
                spool_->close();
                start(DurableSpool::Mode::on);
                break;
            case kKill:
            case kPowerLoss:
                end();
                disk_.crash(step.kind == kKill ? Crash::kill : Crash::powerLoss, step.random);
                start(DurableSpool::Mode::on);
                break;
            default:
                switchOffAndOn();
        }
    }

    // Returns what is wrong after everything has been read and delivered.
    std::string finish() {
        EXPECT_TRUE(collection_->pass([] { return false; }));
        deliverAll();
        std::string wrong;
        for (int event = 0; event < nextEvent_; ++event) {
            const auto count = server_.count(event);
            if (count != 1) {
                wrong += fmt::format("event {} arrived {} times\n", event, count);
            }
        }
        return wrong;
    }

  private:
    Data newRecord() {
        // Many records have the same second.
        return TrailRecord(6152)
            .at(1'700'000'000s + std::chrono::seconds(nextEvent_ / 4))
            .subject({.processId = static_cast<std::uint32_t>(nextEvent_++)})
            .returns(0)
            .bytes();
    }
    static Data noise() { return TrailRecord(72).at(1'700'000'000s).returns(0).bytes(); }

    std::filesystem::path trail(const std::string& end) const {
        return fixture_.volume().auditFolder() / fmt::format("{:04}.{}", trails_, end);
    }
    void write(const Data& record) {
        std::ofstream(trail("not_terminated"), std::ios::binary | std::ios::app)
            .write(reinterpret_cast<const char*>(record.data()), std::ssize(record));
    }
    void rotate() {
        if (std::filesystem::exists(trail("not_terminated"))) {
            std::filesystem::rename(trail("not_terminated"), trail("closed"));
            ++trails_;
        }
    }

    void start(DurableSpool::Mode mode) {
        end();
        auto host = fixture_.host().host();
        spool_.emplace(DurableSpool::Surroundings{.configuration = GlobalVariables::getInstance(),
                                                  .files = disk_,
                                                  .clock = host.clock,
                                                  .dates = Current<DateFormat>::get(),
                                                  .cryptography = host.cryptography},
                       DurableSpool::Hooks{});
        spool_->open(mode, 0);
        collection_.emplace(*spool_, GlobalVariables::getInstance(), disk_, host.clock, host.cryptography,
                            Current<Statistics>::get());
    }
    void end() {
        collection_.reset();
        spool_.reset();
    }
    void settle() { spool_->onWork({}); }

    // A pass that is cancelled after some records.
    void read(unsigned most) {
        unsigned asked = 0;
        collection_->pass([&] { return ++asked > most; });
        settle();
    }

    // The device brings a record before its trail does, or without any trail.
    void fromDevice(bool isInTrail) {
        const int event = nextEvent_;
        const auto record = newRecord();
        EXPECT_TRUE(spool_->acceptFromDevice({{"subject_pid", event}},
                                             digestOf(record, fixture_.host().host().cryptography), 1'700'000'000,
                                             [] { return false; }));
        if (isInTrail) {
            settle();
            write(record);
        } else {
            EXPECT_TRUE(spool_->commitNow());
        }
    }

    void deliverAll() {
        for (int round = 0; round < 8; ++round) {
            fixture_.clock().advance(24h);
            settle();
            while (server_.answer(*spool_, 0)) {
            }
            spool_->commitNow();
        }
    }

    // Without the mode, and with trails of which no position is known, the agent reads on by the stored time; here
    // nothing comes meanwhile.
    void switchOffAndOn() {
        if (spool_->positions().empty()) {
            read(1000);
        }
        EXPECT_TRUE(spool_->commitNow());
        start(DurableSpool::Mode::ending);
        EXPECT_TRUE(collection_->finish([] { return false; }));
        deliverAll();
        EXPECT_FALSE(std::filesystem::exists(fixture_.volume().eventData() / ".journal"));
        for (const auto& file : std::filesystem::directory_iterator(fixture_.volume().auditFolder())) {
            std::filesystem::remove(file.path());
        }
        ++trails_;
        start(DurableSpool::Mode::on);
    }

    AgentFixture& fixture_;
    ForgetfulFileSystem disk_;
    int trails_ = 0;
    int nextEvent_ = 0;
    CountingServer server_{"subject_pid"};
    std::optional<DurableSpool> spool_;
    std::optional<DurableCollection> collection_;
};

TEST(DurableHistoryTest, EachRecordOfARandomHistoryIsReportedOnce) {
    runHistories(150, kShares, [](const std::vector<Step>& steps, unsigned) {
        AgentFixture fixture;
        Mac mac(fixture);
        for (const auto& step : steps) {
            mac.run(step);
        }
        return mac.finish();
    });
}

}  // namespace
}  // namespace sentrova::testing
