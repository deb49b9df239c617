#include "operations/ConcurrentOperationAbstract.h"
#include "support/AgentFixture.h"

#include <stdexcept>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

class Sample final : public ConcurrentOperationAbstract {
  public:
    enum class Fails { never, beforeItExecutes, whileItExecutes };

    explicit Sample(Fails fails = Fails::never) : ConcurrentOperationAbstract("Sample"), fails_(fails) {}
    void start() override {
        if (canStart()) {
            throwIf(Fails::beforeItExecutes);
            started();
            throwIf(Fails::whileItExecutes);
            completeOperation();
        }
    }
    void cancel() override { cancelOperation(); }

  private:
    void throwIf(Fails moment) const {
        if (fails_ == moment) {
            throw std::runtime_error("no memory");
        }
    }

    const Fails fails_;
};

class ConcurrentOperationAbstractTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    // "executing finished cancelled"
    static std::string state(const Operation& operation) {
        return std::to_string(operation.isExecuting()) + std::to_string(operation.isFinished()) +
               std::to_string(operation.isCancelled());
    }

    // All notifications during the call, each with the state at that moment.
    std::string heard(Sample& operation, const std::function<void()>& function) {
        std::string text;
        std::vector<Subscription> subscriptions;
        for (const auto* key : {Operation::kIsFinished, Operation::kIsExecuting, Operation::kIsCancelled}) {
            subscriptions.push_back(operation.observe(
                key,
                [&](const KeyValueChange& change) {
                    text +=
                        (change.isPrior ? "will " : "did ") + std::string(change.key) + " " + state(operation) + "; ";
                },
                KeyValueObserving::Options::changesAndPriors));
        }
        function();
        return text;
    }
};

TEST_F(ConcurrentOperationAbstractTest, EachChangeIsAnnouncedBeforeAndAfterInAFixedOrder) {
    Sample operation;
    EXPECT_EQ(operation.name(), "Sample");
    EXPECT_EQ(state(operation), "000");
    EXPECT_FALSE(operation.isAsynchronous());
    EXPECT_EQ(heard(operation, [&] { EXPECT_TRUE(operation.canStart()); }), "");
    EXPECT_EQ(heard(operation, [&] { operation.started(); }), "will isExecuting 000; did isExecuting 100; ");
    EXPECT_EQ(heard(operation, [&] { operation.cancelOperation(); }), "will isCancelled 100; did isCancelled 101; ");
    EXPECT_EQ(heard(operation, [&] { operation.completeOperation(); }),
              "will isFinished 101; will isExecuting 101; did isExecuting 011; did isFinished 011; ");
    EXPECT_EQ(logged("][DEBUG]ConcurrentOperationAbstract canStart called 0 0\r\n"), 1);
}

TEST_F(ConcurrentOperationAbstractTest, OperationThatThrowsOrIsCancelledBeforeItsStartFinishesWithoutExecuting) {
    for (const auto moment : {Sample::Fails::beforeItExecutes, Sample::Fails::whileItExecutes}) {
        Sample failing(moment);
        EXPECT_FALSE(failing.run());
        EXPECT_EQ(state(failing), "010");
    }
    EXPECT_TRUE(Sample().run());
    Sample operation;
    operation.cancel();
    EXPECT_EQ(heard(operation, [&] { operation.start(); }), "will isFinished 001; did isFinished 011; ");
    operation.printStatus();
    EXPECT_EQ(logged("][INFO]is"), 5);
    EXPECT_EQ(logged("][INFO]isCancelled=1\r\n"), 2);
}

}  // namespace
}  // namespace sentrova
