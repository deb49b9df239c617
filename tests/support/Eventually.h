// Waits for an effect of other threads.

#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace sentrova::testing {

// Waits until the condition holds. Returns false after a minute.
[[nodiscard]] inline bool eventually(const std::function<bool()>& condition) {
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > giveUp) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

}  // namespace sentrova::testing
