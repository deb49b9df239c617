// Calls handlers on a separate thread for signals, instead of in a signal handler of the process.

#pragma once

#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace sentrova::platform {

class SignalSource {
  public:
    virtual ~SignalSource() = default;

    // By the signal's number.
    using Handlers = std::map<int, std::function<void()>>;

    // Call it on the main thread before any other thread starts. From then on the signals have no other effect on the
    // process. After resume, a signal's handler runs each time that the signal comes; signals that come while a handler
    // runs may count as one. All handlers run on one thread; a handler may end the process.
    static std::unique_ptr<SignalSource> make(Handlers handlers);

    // Starts the delivery, including signals that arrived since make. Call it once. The thread runs until the process
    // ends.
    virtual void resume() = 0;
};

// The signals by which this host's users ask a program for its status.
std::vector<int> statusSignals();

}  // namespace sentrova::platform
