#include "collection/DurableCollection.h"
#include "foundation/formats/Json.h"
#include "foundation/run/Current.h"
#include "platform/AuditPipeDevice.h"
#include "support/AgentFixture.h"
#include "volume/TrailWriter.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <optional>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
namespace fs = std::filesystem;

// The process id tells the records apart.
Data record(std::uint32_t process, std::chrono::seconds time = 1000s) {
    return TrailRecord(6152).at(time).subject({.processId = process}).returns(0).bytes();
}

// The volume's pipe, which can be refused, and whose drops the test sets.
class RefusableDevice final : public platform::AuditPipeDevice {
  public:
    Result<FileDescriptor> open(const std::string& path) override {
        return isRefused ? Result<FileDescriptor>(posixError(EBUSY)) : device_->open(path);
    }
    Result<std::uint32_t> request(const FileDescriptor&, platform::AuditPipeRequest, std::uint32_t argument) override {
        return argument;
    }
    Result<std::uint64_t> drops(const FileDescriptor&) override { return dropped.load(); }

    std::atomic<bool> isRefused = false;
    std::atomic<std::uint64_t> dropped = 0;

  private:
    const std::unique_ptr<AuditPipeDevice> device_ = AuditPipeDevice::make();
    const Current<AuditPipeDevice>::Publication publication_{*this};
};

}  // namespace

// Each event is a batch of its own, and so a file.
class DurableCollectionTest : public ::testing::Test, protected AgentFixture {
  protected:
    DurableCollectionTest() {
        serverInfo.set("NumberofEventsPerRequest", 1);
        restartConfigured();
        device_.emplace();
        start(0);
    }
    ~DurableCollectionTest() override { stop(); }

    void start(std::uint64_t reportedUpTo) {
        stop();
        spool_.emplace(DurableSpool::Surroundings{.configuration = GlobalVariables::getInstance(),
                                                  .files = host().files,
                                                  .clock = clock(),
                                                  .dates = Current<DateFormat>::get(),
                                                  .cryptography = Current<Cryptography>::get()},
                       DurableSpool::Hooks{});
        ASSERT_TRUE(spool_->open(DurableSpool::Mode::on, reportedUpTo));
        collection_.emplace(*spool_, GlobalVariables::getInstance(), host().files, clock(),
                            Current<Cryptography>::get(), Current<Statistics>::get());
    }
    void stop() {
        stopLive();
        collection_.reset();
        spool_.reset();
    }

    void startLive() {
        isCancelled_ = false;
        live_ = std::thread([this] { EXPECT_TRUE(collection_->live([this] { return isCancelled_.load(); })); });
    }
    void stopLive() {
        if (live_.joinable()) {
            isCancelled_ = true;
            collection_->wake();
            live_.join();
        }
    }
    bool pass() {
        return collection_->pass([] { return false; });
    }

    void append(const std::string& name, const Data& bytes) {
        std::ofstream file(volume().auditFolder() / name, std::ios::binary | std::ios::app);
        file.write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
    }
    void rename(const std::string& from, const std::string& to) {
        fs::rename(volume().auditFolder() / from, volume().auditFolder() / to);
    }
    // Absent while nobody reads the device.
    FileDescriptor deviceForWriting() {
        return FileDescriptor(::open(volume().auditPipe().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    }
    // Writes to the device as soon as it is read.
    void send(const Data& bytes) {
        FileDescriptor pipe;
        ASSERT_TRUE(eventually([&] { return static_cast<bool>(pipe = deviceForWriting()); }));
        ASSERT_EQ(::write(pipe.get(), bytes.data(), bytes.size()), std::ssize(bytes));
    }

    // The process ids of all events on the disk, in the order of their batches.
    std::vector<std::int64_t> reported() {
        EXPECT_TRUE(spool_->commitNow());
        std::set<fs::path> files;
        for (const auto& entry : fs::directory_iterator(volume().eventData())) {
            if (entry.path().filename().string().starts_with("event_")) {
                files.insert(entry.path());
            }
        }
        std::vector<std::int64_t> processes;
        for (const auto& file : files) {
            const auto events = Json::parse(textOf(file));
            for (const auto& event : events ? *events->array() : Array()) {
                processes.push_back((*event.dictionary())["subject_pid"].integerValue());
            }
        }
        return processes;
    }
    bool eventuallyReported(std::size_t count) {
        return eventually([&] { return reported().size() == count; });
    }

    // In place of the agent's device.
    std::optional<RefusableDevice> device_;
    std::optional<DurableSpool> spool_;
    std::optional<DurableCollection> collection_;
    std::atomic<bool> isCancelled_ = false;
    std::thread live_;
};

TEST_F(DurableCollectionTest, ReadingGoesOnAtTheExactRecordAfterRotationAndRestart) {
    append("1.not_terminated", TrailWriter().addFile(1s, "1").addRaw(record(1)).addRaw(record(2)).bytes());
    append("1.not_terminated", record(2));
    EXPECT_TRUE(pass());
    EXPECT_THAT(reported(), ElementsAre(1, 2, 2)) << "equal records are two events";

    const auto half = record(4);
    append("1.not_terminated", TrailWriter().addRaw(record(2)).addRaw(record(3)).addRaw({half.data(), 20}).bytes());
    rename("1.not_terminated", "1.2");
    append("2.not_terminated", TrailWriter().addFile(2s, "2").addRaw(record(5)).addRaw({half.data(), 20}).bytes());
    start(0);
    EXPECT_TRUE(pass());
    EXPECT_TRUE(pass());
    EXPECT_THAT(reported(), UnorderedElementsAre(1, 2, 2, 2, 3, 5));
    EXPECT_EQ(logged("[ERROR]20 bytes of /var/audit/1.2 are left unread: the data at offset "), 1);
    EXPECT_EQ(logged("left unread"), 1) << "an open trail may end in half a record";

    append("2.not_terminated", Data(half.begin() + 20, half.end()));
    append("1.2", Data(half.begin() + 20, half.end()));
    EXPECT_TRUE(pass());
    EXPECT_THAT(reported(), UnorderedElementsAre(1, 2, 2, 2, 3, 4, 4, 5));
}

TEST_F(DurableCollectionTest, SwitchingOnGoesOnFromTheStoredTime) {
    stop();
    fs::remove(volume().eventData() / ".journal");
    fs::remove(volume().eventData() / ".position");
    volume().addTrail("old", record(1, 150s), 99s);
    append("1.not_terminated", TrailWriter().addRaw(record(2, 99s)).addRaw(record(3, 100s)).bytes());
    start(100);
    EXPECT_TRUE(pass());
    EXPECT_THAT(reported(), ElementsAre(3));
    append("1.not_terminated", record(4, 50s));
    append("2.not_terminated", record(5, 50s));
    start(100);
    EXPECT_TRUE(pass());
    EXPECT_THAT(reported(), UnorderedElementsAre(3, 4, 5)) << "what was written since is new, whatever its time";
    fs::remove(volume().auditFolder() / "old");
    EXPECT_TRUE(pass());
    EXPECT_EQ(logged("was removed before"), 0);
}

TEST_F(DurableCollectionTest, RemovedAndAlteredTrailsAreReported) {
    append("whole", record(1));
    append("torn", TrailWriter().addRaw(record(2)).addRaw(Data(30)).bytes());
    append("altered", TrailWriter().addRaw(record(3)).addRaw(record(4)).bytes());
    EXPECT_TRUE(pass());
    fs::remove(volume().auditFolder() / "whole");
    fs::remove(volume().auditFolder() / "torn");
    std::fstream altered(volume().auditFolder() / "altered");
    altered.seekp(std::ssize(record(3)) + 14) << "X";
    altered.close();
    EXPECT_TRUE(pass());
    EXPECT_EQ(logged("[ERROR]The trail torn was removed before it was read to its end: 30 bytes after offset "), 1);
    EXPECT_EQ(logged("was removed"), 1);
    EXPECT_EQ(logged("of /var/audit/altered is not the one that was read last"), 1);
    EXPECT_THAT(reported(), UnorderedElementsAre(1, 2, 3, 4, 3, 4));
    EXPECT_EQ(spool_->positions().size(), 1U);
}

TEST_F(DurableCollectionTest, FullSpoolStopsReadingAndRoomResumesIt) {
    append("trail", record(1));
    GlobalVariables::getInstance().setMaxEventDataSizeReached(true);
    EXPECT_FALSE(pass());
    startLive();
    send(record(2));
    EXPECT_THAT(reported(), IsEmpty());
    GlobalVariables::getInstance().setMaxEventDataSizeReached(false);
    EXPECT_TRUE(eventuallyReported(2)) << "the realtime reader goes on";
    stopLive();
    GlobalVariables::getInstance().setMaxEventDataSizeReached(true);
    append("trail", record(3));
    GlobalVariables::getInstance().setMaxEventDataSizeReached(false);
    EXPECT_TRUE(eventuallyReported(3)) << "without one, a pass is made";
}

TEST_F(DurableCollectionTest, DeviceIsTheSourceWhereNoTrailIsWrittenAndItsCopiesAreMatchedByCount) {
    startLive();
    send(record(1));
    send(record(1));
    EXPECT_TRUE(eventuallyReported(2));
    // The records reach a trail later, with a third one like them.
    for (int i = 0; i < 3; ++i) {
        append("1.not_terminated", record(1));
    }
    send(record(2));
    EXPECT_TRUE(eventuallyReported(3)) << "the third one";
    EXPECT_TRUE(clock().awaitTimerIn(DurableCollection::kCopyAwaited)) << "the copy of the other record is awaited";
    append("1.not_terminated", record(2));
    clock().advance(DurableCollection::kCopyAwaited);
    EXPECT_TRUE(eventuallyReported(4));
    // One that reaches no trail in time.
    send(record(3));
    EXPECT_TRUE(clock().awaitTimerIn(DurableCollection::kCopyAwaited));
    clock().advance(DurableCollection::kCopyAwaited);
    EXPECT_TRUE(eventuallyReported(5));
    append("1.not_terminated", TrailWriter().addRaw(record(3)).addRaw(record(4)).bytes());
    send(record(4));
    EXPECT_TRUE(eventuallyReported(6));
    stopLive();
    EXPECT_TRUE(pass());
    EXPECT_THAT(reported(), UnorderedElementsAre(1, 1, 1, 2, 3, 4));
}

TEST_F(DurableCollectionTest, FaultsOfTheDeviceAreHealedAndItsDropsCounted) {
    device_->isRefused = true;
    append("trail", record(1));
    startLive();
    EXPECT_TRUE(eventuallyReported(1)) << "the trails are read without the device";
    device_->isRefused = false;
    append("trail", record(2));
    EXPECT_TRUE(eventually([&] {
        clock().advance(1s);
        return reported().size() == 2;
    })) << "each opening is followed by a pass";
    EXPECT_EQ(logged("[ERROR]failed to open audit pipe /dev/auditpipe"), 1);

    send(TrailWriter().addRaw(record(3)).addRaw(Data(3)).bytes());
    EXPECT_TRUE(eventuallyReported(3));
    EXPECT_TRUE(eventually([&] { return !deviceForWriting(); })) << "closed at the garbage";
    EXPECT_EQ(logged("[ERROR]3 bytes of /dev/auditpipe are left unread"), 1);
    EXPECT_TRUE(eventually([&] {
        clock().advance(1s);
        return static_cast<bool>(deviceForWriting());
    })) << "and opened again";
    device_->dropped = 7;
    send(record(4));
    EXPECT_TRUE(eventuallyReported(4));
    EXPECT_EQ(logged("[ERROR]The audit device has dropped 7 records, and no trail is being written"), 1);
}

}  // namespace sentrova::testing
