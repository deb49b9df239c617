#include "foundation/KeyValueObserving.h"

#include <stdexcept>

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
        willChangeValueForKey("other");
        set(value);
        other_ = other;
        didChangeValueForKey("other");
    }

  protected:
    Value valueForKey(std::string_view key) const override { return key == "value" ? value_ : other_; }

  private:
    int value_ = 0;
    int other_ = 0;
};

TEST(KeyValueObservingTest, ChangesAreToldWithOldAndNewValuesAndAnObserverMayEndItselfChangeAgainAndFail) {
    Observed object;
    std::string heard;
    const auto note = [&heard](const KeyValueChange& change) {
        heard += std::string(change.key) + (change.isPrior ? " from " : ":") + change.oldValue.description() +
                 (change.isPrior ? "; " : ">" + change.newValue.description() + "; ");
    };
    auto priors = object.observe("value", note, KeyValueObserving::Options::changesAndPriors);
    const auto other = object.observe("other", note);
    object.set(1);
    object.set(1);
    EXPECT_EQ(heard, "value from 0; value:0>1; value from 1; value:1>1; ");
    heard.clear();
    object.setBoth(2, 3);
    EXPECT_EQ(heard, "value from 1; value:1>2; other:0>3; ");
    heard.clear();

    priors.reset();
    Subscription second;
    const auto first = object.observe("value", [&](const KeyValueChange& change) {
        note(change);
        second.reset();
        if (change.newValue == Value(4)) {
            object.set(5);
            throw std::runtime_error("the observer's own fault");
        }
    });
    second = object.observe("value", [&heard](const KeyValueChange&) { heard += "an ended one"; });
    object.set(4);
    EXPECT_EQ(heard, "value:2>4; value:4>5; ");
}

}  // namespace
}  // namespace sentrova
