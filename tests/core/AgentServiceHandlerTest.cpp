#include "core/AgentServiceHandler.h"
#include "support/AgentFixture.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

namespace fs = std::filesystem;

class AgentServiceHandlerTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    // The lines stand in this order, others between them.
    ::testing::AssertionResult loggedInOrder(std::initializer_list<const char*> lines) {
        const auto whole = log();
        std::size_t at = 0;
        for (const auto* line : lines) {
            at = whole.find(line, at);
            if (at == std::string::npos) {
                return ::testing::AssertionFailure() << "\"" << line << "\" is missing or too early in\n" << whole;
            }
            ++at;
        }
        return ::testing::AssertionSuccess();
    }
};

class Idle final : public ConcurrentOperationAbstract {
  public:
    explicit Idle(const char* name) : ConcurrentOperationAbstract(name) {}
    void start() override { started(); }
    void cancel() override {
        cancelOperation();
        completeOperation();
    }
};

TEST_F(AgentServiceHandlerTest, UnsupportedSystemIsRefusedWithNothingMade) {
    volume().setVersion("10.14.6");
    serverInfo = {};
    fs::remove(volume().conf() / "Serverinfo.plist");
    EXPECT_FALSE(AgentServiceHandler::initializeService());
    EXPECT_TRUE(loggedInOrder(
        {"][INFO]isSupportedOsVersion=0\r\n",
         "][ERROR]Agent cannot run because its either an unsupported version or the User is not a root\r\n",
         "][ERROR]Supported Version = majorVersion.minorVersion\r\n"}));
    EXPECT_TRUE(session().sent().empty());
    EXPECT_FALSE(fs::exists(volume().conf() / "Serverinfo.plist"));
}

TEST_F(AgentServiceHandlerTest, ServiceSynchronisesStartsItsOperationsAndEndsAtTheStop) {
    if (::getuid() != 0) {
        GTEST_SKIP() << "the agent runs as root only";
    }
    const auto unfinished = volume().conf() / ".schedules.plist.412.7.sentrova-tmp";
    std::ofstream(unfinished) << "half a fi";
    session().respondWith([](const auto&) { return testing::FakeUrlSession::Answer{}; });
    ASSERT_TRUE(AgentServiceHandler::initializeService());
    EXPECT_EQ(session().sent().size(), 1U);
    EXPECT_EQ(logged("][DEBUG]AgentServiceHandler init Finished\r\n"), 1);
    EXPECT_FALSE(fs::exists(unfinished));

    std::thread service([] { AgentServiceHandler::start(); });
    EXPECT_TRUE(eventually([] { return AgentServiceHandler::getOperationStatusOnMainQueue("EventForwarder"); }));
    EXPECT_TRUE(eventually([this] { return logged("OperationsHandler EventCollectorRealtime has been added") == 1; }));
    AgentServiceHandler::addOperationToMainQueue(std::make_shared<Idle>("EventForwarder"));
    const auto idle = std::make_shared<Idle>("Idle");
    AgentServiceHandler::addOperationToMainQueue(idle);
    EXPECT_TRUE(eventually([] { return AgentServiceHandler::getOperationStatusOnMainQueue("Idle"); }));
    AgentServiceHandler::cancelOperationsOnMainQueue("Idle");
    EXPECT_TRUE(idle->isFinished());
    // Realtime collection is off: that operation is refused, after the batch.
    EXPECT_TRUE(eventually([this] { return logged("EventCollectorRealtime didn't run") == 1; }));
    AgentServiceHandler::stop();
    service.join();

    const std::string stars = "][INFO]" + std::string(86, '*') + "\r\n";
    EXPECT_EQ(logged(stars), 2);
    EXPECT_TRUE(loggedInOrder(
        {stars.c_str(), "][INFO]Going to Start Vantorix Sentrova Agent.\r\n", stars.c_str(),
         "][INFO]Going to rotate log\r\n", "][INFO]Zipping Log\r\n",
         "OperationsHandler ScheduleHandler has been added to the queue",
         "OperationsHandler EventForwarder has been added to the queue", "][DEBUG]Calling first schedule\r\n",
         "OperationsHandler EventCollectionSchedule has been added to the queue",
         "OperationsHandler EventCollectorRealtime has been added to the queue",
         "OperationsHandler EventForwarder cannot be added to the queue already exists",
         "OperationsHandler Idle has been cancelled", "][INFO]AgentServiceHandler stop called\r\n"}));
    EXPECT_TRUE(loggedInOrder({"EventCollectionFiles start called", "EventCollectorRealtime start called"}));
}

TEST_F(AgentServiceHandlerTest, BeforeTheStartThereIsNothingToStopOrFind) {
    const auto idle = std::make_shared<Idle>("Idle");
    AgentServiceHandler::addOperationToMainQueue(idle);
    AgentServiceHandler::cancelOperationsOnMainQueue("Idle");
    AgentServiceHandler::stop();
    EXPECT_FALSE(AgentServiceHandler::getOperationStatusOnMainQueue("Idle"));
    EXPECT_FALSE(idle->isExecuting() || idle->isCancelled());
    EXPECT_EQ(logged("][INFO]AgentServiceHandler stop called\r\n"), 1);
}

}  // namespace
}  // namespace sentrova
