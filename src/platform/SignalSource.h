// Calls a handler on a separate thread for each signal, instead of in a signal handler of the process.

#pragma once

#include <functional>
#include <memory>

namespace sentrova::platform {

class SignalSource {
  public:
    virtual ~SignalSource() = default;

    // Call it on the main thread before any other thread starts. From then on the signal has no other effect on the
    // process. After resume, the handler runs for each signal; it may end the process.
    static std::unique_ptr<SignalSource> make(int signal, std::function<void()> handler);

    // Starts the delivery, including signals that arrived since make. Call it once. The thread runs until the process
    // ends.
    virtual void resume() = 0;
};

}  // namespace sentrova::platform
