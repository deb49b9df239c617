#include "collection/EventCollectorRealtime.h"
#include "core/GlobalVariables.h"
#include "forwarding/EventQueueGCD.h"
#include "foundation/files/FileDescriptor.h"
#include "support/AgentFixture.h"
#include "volume/TrailRecord.h"

#include <fcntl.h>
#include <unistd.h>

#include <future>
#include <span>
#include <thread>

#include <gtest/gtest.h>

namespace sentrova::testing {

using namespace std::chrono_literals;

class EventCollectorRealtimeTest : public ::testing::Test, protected AgentFixture {
  protected:
    EventCollectorRealtimeTest() {
        serverInfo.set("IsRealTime", true);
        restartConfigured();
    }

    // An operation that reads the pipe on its own thread until it is cancelled.
    struct Reading {
        std::shared_ptr<EventCollectorRealtime> operation = std::make_shared<EventCollectorRealtime>();
        std::thread thread{[operation = operation] { operation->start(); }};

        ~Reading() {
            if (!operation->isFinished()) {
                operation->cancel();
            }
            thread.join();
        }
    };

    // Writes one record in two parts through two writers, and waits until it has been read. The reader is then known to
    // be reading.
    void passRecord(std::size_t count) {
        const auto record = TrailRecord(6152).at(1000s).returns(0).bytes();
        for (const auto part : {std::span(record).first(20), std::span(record).subspan(20)}) {
            FileDescriptor pipe;
            ASSERT_TRUE(eventually([&] {
                pipe = FileDescriptor(::open(volume().auditPipe().c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
                return pipe.get() >= 0;
            })) << "somebody reads";
            ASSERT_EQ(::write(pipe.get(), part.data(), part.size()), std::ssize(part));
        }
        EXPECT_TRUE(eventually([count] { return EventQueueGCD::length() == count; }));
    }
};

TEST_F(EventCollectorRealtimeTest, ReadingIsRefusedWhileItsConditionsDoNotHold) {
    auto& configuration = GlobalVariables::getInstance();
    for (const std::string flags : {"1 0 0 0 0", "0 1 0 0 0", "0 0 1 0 0", "0 0 0 1 0"}) {
        configuration.setIsRealTime(flags[2] == '0');
        configuration.setIsEnabled(flags[4] == '0');
        configuration.setMaxEventDataSizeReached(flags[6] == '1');
        const auto operation = std::make_shared<EventCollectorRealtime>();
        flags[0] == '1' ? operation->cancel() : void();
        operation->start();
        EXPECT_TRUE(operation->isFinished()) << flags;
        EXPECT_EQ(logged("[INFO]" + flags + "\r\n"), 1);
    }
    EXPECT_EQ(logged("[ERROR]EventCollectorRealtime didn't run because conditions didnot match"), 4);
    EXPECT_EQ(logged("[ERROR]Realtime collection does not run: the agent is disabled (isEnabled)"), 1);
    EXPECT_EQ(logged("[ERROR]Realtime collection does not run: "), 2) << "no word where it is off or cancelled";
}

TEST_F(EventCollectorRealtimeTest, CancelDuringOrAfterTheCreationOfTheReaderEndsTheReading) {
    // Cancels as soon as the log has the line.
    struct CancelAtLine final : platform::HostFileSystem {
        Result<Done> append(const std::string& path, std::string_view text) override {
            if (text.find(line) != std::string_view::npos) {
                operation->cancel();
            }
            return HostFileSystem::append(path, text);
        }
        std::string_view line;
        std::shared_ptr<EventCollectorRealtime> operation;
    } fileSystem;
    const SwitchedFileSystem::Replacement replacement(fileSystem);
    for (const auto* line : {"EventCollector Init called", "Eventcollector start called"}) {
        SCOPED_TRACE(line);
        fileSystem.line = line;
        fileSystem.operation = std::make_shared<EventCollectorRealtime>();
        auto reading = std::async(std::launch::async, [&] { fileSystem.operation->start(); });
        EXPECT_TRUE(eventually([&] { return reading.wait_for(0s) == std::future_status::ready; }));
        fileSystem.operation->cancel();
    }
}

TEST_F(EventCollectorRealtimeTest, OneReaderReadsUntilTheSizeLimitIsReached) {
    auto& configuration = GlobalVariables::getInstance();
    Reading reading;
    passRecord(1);
    configuration.setMaxEventDataSizeReached(false);
    passRecord(2);
    const Reading second;
    EXPECT_TRUE(eventually([this] { return logged("[INFO]0 0 0 0 1\r\n") == 1; }));
    EXPECT_TRUE(second.operation->isFinished());
    EXPECT_TRUE(reading.operation->isExecuting()) << "neither a check without a change nor another reader ends it";

    configuration.setMaxEventDataSizeReached(true);
    EXPECT_TRUE(reading.operation->isFinished());
    // The cancel ended a read of the device, without new data.
    EXPECT_TRUE(eventually([this] { return logged("[INFO]/dev/auditpipe ended: 2 records read", "Event") == 1; }));
    EXPECT_EQ(logged("[ERROR]Reading /dev/auditpipe failed"), 0) << "a cancel is no failure";
    EXPECT_TRUE(eventually([this] {
        return volume().readConfiguration("myconfigurations.plist")["TimestampOfLastEvent"] == Value("1000");
    }));
    configuration.setMaxEventDataSizeReached(true);
    configuration.setMaxEventDataSizeReached(false);
    EXPECT_EQ(logged("EventCollectorRealtime cancel called"), 1);
    EXPECT_EQ(logged("Eventcollector start called"), 1);
}

TEST_F(EventCollectorRealtimeTest, OnlyOneOfTwoConcurrentOperationsReadsAndOneWithoutAPipeExecutesUntilItsCancel) {
    {
        const Reading readings[2];
        passRecord(1);
        EXPECT_TRUE(eventually([this] { return logged("[INFO]0 0 0 0 1\r\n") == 1; }));
        EXPECT_EQ(logged("Eventcollector start called"), 1);
    }
    std::filesystem::remove(volume().auditPipe());
    const auto operation = std::make_shared<EventCollectorRealtime>();
    operation->start();
    EXPECT_TRUE(operation->isExecuting());
    EXPECT_EQ(logged("[ERROR]failed to open audit pipe /dev/auditpipe"), 1);
    operation->cancel();
    EXPECT_TRUE(operation->isFinished());
}

}  // namespace sentrova::testing
