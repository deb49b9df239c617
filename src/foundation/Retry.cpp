#include "foundation/Retry.h"

#include "foundation/DispatchQueue.h"

#include <chrono>
#include <exception>
#include <thread>

namespace sentrova {

namespace {
constexpr std::chrono::milliseconds kPause{100};
}  // namespace

void retryUntilGranted(std::string_view where, const std::function<void()>& function) {
    for (bool reported = false;; reported = true) {
        try {
            function();
            return;
        } catch (const std::exception& exception) {
            if (!reported) {
                DispatchQueue::reportException(where, exception.what());
            }
        }
        std::this_thread::sleep_for(kPause);
    }
}

}  // namespace sentrova
