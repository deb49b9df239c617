#include "foundation/run/Threads.h"

#include "foundation/run/Current.h"
#include "foundation/run/Unhandled.h"

#include <algorithm>
#include <atomic>
#include <exception>

namespace sentrova {

namespace {

constexpr std::chrono::milliseconds kFirstDelay{10};
constexpr std::chrono::seconds kLongestDelay{1};
// Between the attempts of retryUntilGranted.
constexpr std::chrono::milliseconds kPause{100};

// The number of callers that wait for a thread, and whether the shortage is logged. It is over when nobody waits.
std::atomic<int> waiting{0};
std::atomic<bool> reported{false};

void startWaiting() {
    ++waiting;
}

void endWaiting() {
    if (--waiting == 0) {
        reported = false;
    }
}

void reportOnce() {
    if (!reported.exchange(true)) {
        reportException("thread", "No thread could be started; the work is queued and retried");
    }
}

}  // namespace

std::thread tryStartThread(const std::function<void()>& function) noexcept {
    try {
        auto* const threads = Current<Threads>::orNull();
        return threads ? threads->start(function) : std::thread(function);
    } catch (const std::exception&) {
        return {};
    }
}

std::thread startThread(const std::function<void()>& function) {
    auto thread = tryStartThread(function);
    if (!thread.joinable()) {
        startWaiting();
        while (!thread.joinable()) {
            pauseForThreads();
            thread = tryStartThread(function);
        }
        endWaiting();
    }
    return thread;
}

void pauseForThreads() {
    reportOnce();
    // Not through the Clock, whose own thread may be the refused one.
    std::this_thread::sleep_for(kFirstDelay);
}

void retryUntilGranted(std::string_view where, const std::function<void()>& function) {
    for (bool isReported = false;; isReported = true) {
        try {
            function();
            return;
        } catch (const std::exception& exception) {
            if (!isReported) {
                reportException(where, exception.what());
            }
        }
        std::this_thread::sleep_for(kPause);
    }
}

void ThreadRetry::later(const std::function<void()>& function) noexcept {
    try {
        if (!waiting_) {
            waiting_ = true;
            startWaiting();
        }
        const auto now = clock_.monotonicTime();
        if (now < due_) {
            return;
        }
        const auto delay = std::clamp<Clock::Duration>(delay_ * 2, kFirstDelay, kLongestDelay);
        clock_.schedule(now + delay, [function] {
            // Logged here and not in later(), because the owner's lock may forbid logging.
            if (waiting > 0) {
                reportOnce();
            }
            function();
        });
        delay_ = delay;
        due_ = now + delay;
    } catch (const std::exception&) {
        return;
    }
}

void ThreadRetry::succeeded() noexcept {
    if (waiting_) {
        waiting_ = false;
        delay_ = {};
        due_ = {};
        endWaiting();
    }
}

}  // namespace sentrova
