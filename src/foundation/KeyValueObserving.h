// Change notifications of an object's values by key.
//
// The object brackets every change of a value with willChangeValueForKey and didChangeValueForKey; observers of the key
// hear of it on the changing thread. What an observer throws is reported under the key, and the change goes on. Safe
// from any thread.

#pragma once

#include "foundation/Subscription.h"
#include "foundation/Value.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace sentrova {

struct KeyValueChange {
    std::string_view key;
    // True before the change (told only to observers that ask for it), false after it.
    bool isPrior = false;
    Value oldValue;
    Value newValue;
};

class KeyValueObserving {
  public:
    using Observer = std::function<void(const KeyValueChange&)>;
    enum class Options { changes, changesAndPriors };

    KeyValueObserving();
    KeyValueObserving(const KeyValueObserving&) = delete;
    KeyValueObserving& operator=(const KeyValueObserving&) = delete;
    virtual ~KeyValueObserving();

    // The subscription may outlive the object. Observers are called in the order of their registration.
    Subscription observe(std::string_view key, Observer observer, Options options = Options::changes);

    void willChangeValueForKey(std::string_view key);
    void didChangeValueForKey(std::string_view key);

  protected:
    // The present value; empty for keys that the object does not know.
    virtual Value valueForKey(std::string_view key) const = 0;

  private:
    struct State;
    std::shared_ptr<State> state_;
};

}  // namespace sentrova
