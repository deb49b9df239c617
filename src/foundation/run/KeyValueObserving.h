// Notifies observers when an object's value under a key changes.
//
// The object calls willChangeValueForKey before each change and didChangeValueForKey after it. Observers of the key run
// on the changing thread. An observer's exception is reported under the key and does not stop the change. Safe from any
// thread.

#pragma once

#include "foundation/run/Mutex.h"
#include "foundation/run/Observers.h"
#include "foundation/value/Value.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace sentrova {

struct KeyValueChange {
    std::string_view key;
    // True in the notification before the change, which only observers with `changesAndPriors` receive.
    bool isPrior = false;
    Value oldValue;
    Value newValue;
};

class KeyValueObserving {
  public:
    using Observer = std::function<void(const KeyValueChange&)>;
    enum class Options { changes, changesAndPriors };

    KeyValueObserving() = default;
    KeyValueObserving(const KeyValueObserving&) = delete;
    KeyValueObserving& operator=(const KeyValueObserving&) = delete;
    virtual ~KeyValueObserving();

    // The subscription may outlive the object. Observers are called in the order of their registration.
    Subscription observe(std::string_view key, Observer observer, Options options = Options::changes) EXCLUDES(mutex_);

    // The object calls both, on the same thread: the first one before the value changes, the second one after it.
    void willChangeValueForKey(std::string_view key) EXCLUDES(mutex_);
    void didChangeValueForKey(std::string_view key) EXCLUDES(mutex_);

  protected:
    // The current value; empty for an unknown key.
    virtual Value valueForKey(std::string_view key) const = 0;

  private:
    // A change between willChange and didChange, with the value before it.
    struct Announced {
        std::thread::id thread;
        std::string key;
        Value oldValue;
    };

    std::optional<Observers<KeyValueChange>> observersOf(std::string_view key) EXCLUDES(mutex_);

    Mutex mutex_;
    std::map<std::string, Observers<KeyValueChange>, std::less<>> observers_ GUARDED_BY(mutex_);
    std::vector<Announced> announced_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
