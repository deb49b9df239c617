#include "foundation/run/KeyValueObserving.h"

#include <stdexcept>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

class Observed final : public KeyValueObserving {
  public:
    void set(const char* key, int value, const std::function<void()>& meanwhile = [] {}) {
        willChangeValueForKey(key);
        meanwhile();
        values_.set(key, value);
        didChangeValueForKey(key);
    }

  protected:
    Value valueForKey(std::string_view key) const override { return values_[key]; }

  private:
    Dictionary values_ = {{"value", 0}, {"other", 0}};
};

TEST(KeyValueObservingTest, ObserversHearOldAndNewValuesAndMayEndThemselvesChangeTheValueAgainAndThrow) {
    Observed object;
    std::string heard;
    const auto note = [&heard](const KeyValueChange& change) {
        heard += std::string(change.key) + " " + change.oldValue.description() +
                 (change.isPrior ? "; " : ">" + change.newValue.description() + "; ");
    };
    auto priors = object.observe("value", note, KeyValueObserving::Options::changesAndPriors);
    const auto other = object.observe("other", note);
    object.set("value", 1);
    object.set("value", 1);
    EXPECT_EQ(heard, "value 0; value 0>1; value 1; value 1>1; ");
    heard.clear();
    object.set("other", 3, [&object] {
        object.set("value", 2);
        object.set("unobserved", 7);
    });
    EXPECT_EQ(heard, "value 1; value 1>2; other 0>3; ");
    heard.clear();

    priors.reset();
    Subscription second;
    const auto first = object.observe("value", [&](const KeyValueChange& change) {
        note(change);
        second.reset();
        if (change.newValue == Value(4)) {
            object.set("value", 5);
            throw std::runtime_error("the observer's own fault");
        }
    });
    second = object.observe("value", [&heard](const KeyValueChange&) { heard += "an ended one"; });
    object.set("value", 4);
    EXPECT_EQ(heard, "value 2>4; value 4>5; ");
}

}  // namespace
}  // namespace sentrova
