#include "foundation/KeyValueObserving.h"

#include <atomic>
#include <string>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

class Observed final : public KeyValueObserving {
  public:
    void set(int value) {
        willChangeValueForKey("value");
        value_ = value;
        didChangeValueForKey("value");
    }
    void setBoth(int value, int other) {
        willChangeValueForKey("value");
        willChangeValueForKey("other");
        value_ = value;
        other_ = other;
        didChangeValueForKey("other");
        didChangeValueForKey("value");
    }

  protected:
    Value valueForKey(std::string_view key) const override {
        return key == "value" ? Value(value_.load()) : key == "other" ? Value(other_.load()) : Value();
    }

  private:
    std::atomic<int> value_ = 0;
    std::atomic<int> other_ = 0;
};

std::string text(const KeyValueChange& change) {
    return std::string(change.key) + (change.isPrior ? " from " : ":") + change.oldValue.description() +
           (change.isPrior ? "; " : ">" + change.newValue.description() + "; ");
}

TEST(KeyValueObservingTest, ChangesAreToldWithOldAndNewValuesInTheirOrder) {
    Observed object;
    std::string heard;
    const auto note = [&heard](const KeyValueChange& change) { heard += text(change); };
    const auto priors = KeyValueObserving::Options::changesAndPriors;
    const auto value = object.observe("value", note, priors);
    auto other = object.observe("other", note);
    object.set(1);
    object.set(1);
    EXPECT_EQ(heard, "value from 0; value:0>1; value from 1; value:1>1; ");
    heard.clear();
    object.setBoth(2, 3);
    EXPECT_EQ(heard, "value from 1; other:0>3; value:1>2; ");
    heard.clear();
    other.reset();
    object.setBoth(4, 5);
    EXPECT_EQ(heard, "value from 2; value:2>4; ");
}

TEST(KeyValueObservingTest, ObserverMayEndItselfAndOthersAndChangeTheValueAgain) {
    Observed object;
    std::string heard;
    Subscription second;
    const auto first = object.observe("value", [&](const KeyValueChange& change) {
        heard += text(change);
        second.reset();
        if (change.newValue == Value(1)) {
            object.set(2);
        }
    });
    second = object.observe("value", [&heard](const KeyValueChange&) { heard += "second"; });
    object.set(1);
    EXPECT_EQ(heard, "value:0>1; value:1>2; ");
}

}  // namespace
}  // namespace sentrova
