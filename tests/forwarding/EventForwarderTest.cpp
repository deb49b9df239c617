#include "forwarding/EventForwarder.h"
#include "forwarding/EventQueueGCD.h"
#include "forwarding/TransportEngine.h"
#include "foundation/run/NotificationCenter.h"
#include "platform/posix/HostFileSystem.h"
#include "support/AgentFixture.h"
#include "support/Footprint.h"
#include "support/SwitchedFileSystem.h"

#include <atomic>
#include <fstream>
#include <new>
#include <stdexcept>

#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {
using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr const char* kBatch = R"([{"n":1},{"n":2}])";
}  // namespace

class EventForwarderTest : public ::testing::Test, protected AgentFixture {
  protected:
    EventForwarderTest() { EventQueueGCD::init(); }
    ~EventForwarderTest() override {
        forwarder_->cancel();
        // A delivery may still be running. Destroying the last reference waits for the queue's thread.
        EXPECT_TRUE(eventually([this] { return forwarder_.use_count() == 1; }));
        forwarder_.reset();
    }

    FileUrl addFile(const std::string& name, std::string_view content = kBatch) {
        const auto path = volume().eventData() / name;
        std::ofstream(path) << content;
        return FileUrl(path.string());
    }
    std::size_t filesLeft() { return Footprint::entriesOf(volume().eventData().c_str()); }

    void answer(std::size_t number, const FakeUrlSession::Answer& answer) {
        session().answer(number, answer);
        session().settle();
    }

    std::shared_ptr<EventForwarder> forwarder_ = EventForwarder::init();
};

TEST_F(EventForwarderTest, OnlyAnAnswerOf200IsADelivery) {
    const auto down = FakeUrlSession::failure(UrlErrorCode::cannotConnectToHost, "Nobody there");
    const std::pair<FakeUrlSession::Answer, bool> cases[] = {{{200, "no json"}, true}, {{200, ""}, true},
                                                             {{204, ""}, false},       {{302, ""}, false},
                                                             {{500, ""}, false},       {down, false}};
    std::size_t number = 0;
    for (const auto& [given, delivered] : cases) {
        SCOPED_TRACE(given.status);
        restart();
        EventQueueGCD::init();
        forwarder_->process(addFile("event_1"));
        ASSERT_EQ(session().sent().size(), number + 1);
        EXPECT_EQ(session().sent().back().body, kBatch);
        EXPECT_EQ(filesLeft(), 0U) << "deleted once the request is under way";
        EXPECT_EQ(EventQueueGCD::length(), 0U);
        const auto address = TransportEngine().baseURL();
        answer(number++, given);
        EXPECT_EQ(TransportEngine::isConnected(), delivered);
        EXPECT_EQ(EventQueueGCD::length(), delivered ? 0U : 2U);
        EXPECT_EQ(TransportEngine().baseURL() == address, delivered);
    }
    EXPECT_EQ(logged("[ERROR]Nobody there\r\n", "Communication"), 1);
    for (const auto* reason : {"Nobody there", "answered with HTTP status 204", "answered with HTTP status 500"}) {
        EXPECT_EQ(logged(std::string("http://audit.example.com:8443: ") + reason, "Communication"), 1) << reason;
    }
}

TEST_F(EventForwarderTest, BatchOfARequestThatCannotBeginStaysInTheSpool) {
    session().respondWith(
        [](const auto&) -> std::optional<FakeUrlSession::Answer> { throw std::runtime_error("No thread"); });
    const auto file = addFile("event_1");
    EventQueueGCD::enqueue({{"n", 0}});
    // Each failed request releases its slot.
    for (std::size_t i = 0; i <= EventForwarder::kDeliveriesInFlight; ++i) {
        forwarder_->process(file);
        forwarder_->process(std::nullopt);
    }
    EXPECT_EQ(filesLeft(), 1U);
    EXPECT_EQ(EventQueueGCD::length(), 1U);
    EXPECT_EQ(logged("[ERROR]The file " + file.path() + " was not sent"), 7);
    EXPECT_EQ(logged("[ERROR]The events in memory were not sent"), 7);

    session().respondWith([](const auto&) { return FakeUrlSession::Answer(); });
    forwarder_->start();
    clock().advance(10s);
    EXPECT_TRUE(eventually([this] { return filesLeft() == 0 && EventQueueGCD::length() == 0; }));

    // The same if memory is too short to read the file.
    struct ShortOfMemory final : platform::HostFileSystem {
        Result<std::string> readText(const std::string&) override { throw std::bad_alloc(); }
    } files;
    const auto late = addFile("event_2");
    {
        const SwitchedFileSystem::Replacement replacement(files);
        EXPECT_THROW(forwarder_->process(late), std::bad_alloc);
    }
    clock().advance(10s);
    EXPECT_TRUE(eventually([this] { return filesLeft() == 0; }));
}

TEST_F(EventForwarderTest, FilesOfAnEarlierRunAreDeliveredWithAtMostSixInFlight) {
    for (const std::string number : {"1", "2", "3", "4", "5", "6", "7", "8"}) {
        addFile("event_" + number, R"([{"n":)" + number + "}]");
    }
    forwarder_->start();
    ASSERT_TRUE(session().waitForRequests(6));
    EXPECT_TRUE(eventually([this] { return filesLeft() == 2; }));
    session().answer(3, {});
    ASSERT_TRUE(session().waitForRequests(7));
    EXPECT_TRUE(eventually([this] { return filesLeft() == 1; }));
    EXPECT_TRUE(forwarder_->isExecuting());
    forwarder_->cancel();
    answer(0, {});
    EXPECT_EQ(filesLeft(), 1U) << "what waits for its turn stays on the disk";
    std::set<std::string> bodies;
    for (const auto& sent : session().sent()) {
        EXPECT_TRUE(bodies.insert(sent.body).second) << sent.body;
    }
    EXPECT_EQ(bodies.size(), 7U);
}

TEST_F(EventForwarderTest, AnswersToDeliveriesInFlightAreHandledIndividually) {
    for (const auto* name : {"event_1", "event_2", "event_3"}) {
        forwarder_->process(addFile(name));
    }
    ASSERT_EQ(session().sent().size(), 3U);
    answer(1, {500, ""});
    EXPECT_EQ(EventQueueGCD::length(), 2U);
    EXPECT_FALSE(TransportEngine::isConnected());
    answer(0, {200, "{}"});
    EXPECT_TRUE(TransportEngine::isConnected()) << "a delivery that was under way shows that the server is there";
    answer(2, {503, ""});
    EXPECT_EQ(EventQueueGCD::length() + 3 * filesLeft(), 4U) << "each batch comes back once";
    EXPECT_EQ(TransportEngine().baseURL(), "http://audit:8443") << "two failures, two addresses on";
}

TEST_F(EventForwarderTest, NothingIsSentOrDeletedWhileTheServerIsNotReachable) {
    TransportEngine::setIsConnected(false);
    const auto file = addFile("event_1");
    EventQueueGCD::enqueue({{"n", 0}});
    forwarder_->process(file);
    forwarder_->process(std::nullopt);
    EXPECT_EQ(filesLeft(), 1U);
    EXPECT_EQ(EventQueueGCD::length(), 1U);
    // Events that were taken from the spool before return to it.
    EXPECT_TRUE(forwarder_->SendData(std::make_shared<const std::string>(kBatch), nullptr));
    EXPECT_TRUE(session().sent().empty());
    TransportEngine::setIsConnected(true);
    EXPECT_EQ(EventQueueGCD::dequeue(std::nullopt), R"([{"n":0},{"n":1},{"n":2}])");
}

TEST_F(EventForwarderTest, FileThatIsNotABatchStaysInTheSpool) {
    for (const auto* content : {"", "{\"n\":1}", "[{\"n\":1}", "[\"\xFF\"]"}) {
        forwarder_->process(addFile("event_1", content));
        EXPECT_EQ(filesLeft(), 1U) << content;
    }
    EXPECT_TRUE(session().sent().empty());
    fs::remove(volume().eventData() / "event_1");

    // A file that only looks like a batch is kept if its delivery fails.
    forwarder_->process(addFile("event_2", "[{\"n\":1},2]"));
    forwarder_->process(addFile("event_3", "[no json]"));
    forwarder_->process(addFile("event_4", "[nor this]"));
    for (const auto number : {0U, 1U, 2U}) {
        answer(number, {500, ""});
    }
    EXPECT_EQ(EventQueueGCD::length(), 1U);
    const auto aside = "undelivered_" + std::to_string(clock().epochSeconds());
    EXPECT_EQ(textOf(volume().eventData() / aside), "[no json]");
    EXPECT_EQ(textOf(volume().eventData() / (aside + "_2")), "[nor this]") << "one of the same second";
}

TEST_F(EventForwarderTest, EventsInMemoryAreDeliveredAfterTenSecondsUntilTheForwarderIsCancelled) {
    std::atomic<int> announced = 0;
    const auto observer = NotificationCenter::defaultCenter().addObserver(
        EventQueueGCD::kTimeUpdateNotification, [&announced](const Notification&) { ++announced; });
    forwarder_->start();
    EventQueueGCD::enqueue({{"text", "caf\xC3\xA9"}});
    clock().advance(10s);
    ASSERT_TRUE(session().waitForRequests(1));
    EXPECT_EQ(session().sent()[0].body, R"([{"text":"cafe"}])");
    answer(0, {500, ""});
    TransportEngine::setIsConnected(true);
    EXPECT_EQ(EventQueueGCD::dequeue(std::nullopt), "[{\"text\":\"caf\xC3\xA9\"}]") << "back as it was";
    EventQueueGCD::enqueue({{"n", 0}});
    clock().advance(10s);
    ASSERT_TRUE(session().waitForRequests(2));
    ASSERT_TRUE(eventually([&] { return announced >= 3; }));

    forwarder_->cancel();
    EXPECT_TRUE(forwarder_->isFinished());
    const int before = announced;
    EventQueueGCD::enqueue({{"n", 1}});
    clock().advance(10s);
    EXPECT_TRUE(eventually([&] { return announced > before; }));
    EXPECT_EQ(logged("Received Event Timeout notification"), 3);
    EXPECT_EQ(EventQueueGCD::length(), 1U);
}

}  // namespace sentrova::testing
