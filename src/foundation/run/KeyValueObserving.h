// Change notifications of an object's values by key.
//
// The object brackets every change of a value with willChangeValueForKey and didChangeValueForKey; observers of the key
// hear of it on the changing thread. What an observer throws is reported under the key, and the change goes on. Safe
// from any thread.

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
    // True before the change (told only to observers that ask for it), false after it.
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

    void willChangeValueForKey(std::string_view key) EXCLUDES(mutex_);
    void didChangeValueForKey(std::string_view key) EXCLUDES(mutex_);

  protected:
    // The present value; empty for keys that the object does not know.
    virtual Value valueForKey(std::string_view key) const = 0;

  private:
    // A change that has been announced and not yet made, with the value before it.
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
