#include "operations/ConcurrentOperationAbstract.h"
#include "support/AgentFixture.h"

#include <functional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sentrova {
namespace {

class Sample final : public ConcurrentOperationAbstract {
  public:
    Sample() : ConcurrentOperationAbstract("Sample") {}
    void start() override { canStart() ? started() : void(); }
    void cancel() override { cancelOperation(); }
};

class ConcurrentOperationAbstractTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    // Everything the operation says while the function runs, each notification with the state at that moment:
    // executing, finished, cancelled.
    static std::string heard(Sample& operation, const std::function<void()>& function) {
        std::string text;
        std::vector<Subscription> subscriptions;
        const auto note = [&](const KeyValueChange& change) {
            text += fmt::format("{} {} {:d}{:d}{:d}; ", change.isPrior ? "will" : "did", change.key,
                                operation.isExecuting(), operation.isFinished(), operation.isCancelled());
        };
        for (const auto* key : {Operation::kIsFinished, Operation::kIsExecuting, Operation::kIsCancelled}) {
            subscriptions.push_back(operation.observe(key, note, KeyValueObserving::Options::changesAndPriors));
        }
        function();
        return text;
    }
};

TEST_F(ConcurrentOperationAbstractTest, EachChangeIsAnnouncedAroundItsMomentInTheGivenOrder) {
    Sample operation;
    EXPECT_EQ(heard(operation, [&] { operation.start(); }), "will isExecuting 000; did isExecuting 100; ");
    EXPECT_EQ(heard(operation, [&] { operation.cancel(); }), "will isCancelled 100; did isCancelled 101; ");
    EXPECT_EQ(heard(operation, [&] { operation.completeOperation(); }),
              "will isFinished 101; will isExecuting 101; did isExecuting 011; did isFinished 011; ");
}

TEST_F(ConcurrentOperationAbstractTest, CancelledBeforeItsStartItFinishesWithoutExecuting) {
    Sample operation;
    operation.cancel();
    EXPECT_EQ(heard(operation, [&] { operation.start(); }), "will isFinished 001; did isFinished 011; ");
}

}  // namespace
}  // namespace sentrova
