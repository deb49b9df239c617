// Hears of a signal on a thread of its own, instead of in a signal handler.

#pragma once

#include <functional>
#include <memory>

namespace sentrova::platform {

class SignalSource {
  public:
    virtual ~SignalSource() = default;

    // To be made on the main thread before any other thread begins. From then on the signal has no other effect on the
    // process. The handler runs for each signal once the source is resumed; it may end the process.
    static std::unique_ptr<SignalSource> make(int signal, std::function<void()> handler);

    virtual void resume() = 0;
};

}  // namespace sentrova::platform
