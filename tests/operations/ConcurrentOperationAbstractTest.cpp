#include "operations/ConcurrentOperationAbstract.h"
#include "support/AgentFixture.h"

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

class Sample final : public ConcurrentOperationAbstract {
  public:
    Sample() : ConcurrentOperationAbstract("Sample") {}
    void start() override {
        if (canStart()) {
            started();
            completeOperation();
        }
    }
    void cancel() override { cancelOperation(); }
};

class ConcurrentOperationAbstractTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    // "executing finished cancelled"
    static std::string state(const Operation& operation) {
        return std::to_string(operation.isExecuting()) + std::to_string(operation.isFinished()) +
               std::to_string(operation.isCancelled());
    }

    // Everything the operation says while the function runs, each notification with the state at that moment.
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

TEST_F(ConcurrentOperationAbstractTest, EachChangeIsAnnouncedAroundItsMomentInTheGivenOrder) {
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

TEST_F(ConcurrentOperationAbstractTest, CancelledBeforeItsStartItFinishesWithoutExecuting) {
    Sample operation;
    operation.cancel();
    EXPECT_EQ(heard(operation, [&] { operation.start(); }), "will isFinished 001; did isFinished 011; ");
    operation.printStatus();
    std::string lines;
    const auto whole = log();
    const std::string mark = "][INFO]";
    for (auto at = whole.find(mark); at != std::string::npos; at = whole.find(mark, at + 1)) {
        const auto begin = at + mark.size();
        lines += whole.substr(begin, whole.find('\r', begin) - begin) + " ";
    }
    EXPECT_EQ(lines, "isFinished=1 isCancelled=1 isExecuting=0 isAsync=0 isCancelled=1 ");
}

}  // namespace
}  // namespace sentrova
