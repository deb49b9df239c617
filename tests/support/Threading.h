// For tests: refuses threads, and collects the reports of unhandled exceptions.

#pragma once

#include "foundation/run/Current.h"
#include "foundation/run/Mutex.h"
#include "foundation/run/Threads.h"
#include "foundation/run/Unhandled.h"

#include <cerrno>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace sentrova::testing {

// Refuses every thread as long as the object lives.
class ThreadShortage final : public Threads {
  public:
    std::thread start(const std::function<void()>&) override {
        throw std::system_error(EAGAIN, std::generic_category());
    }

  private:
    const Current<Threads>::Publication publication_{*this};
};

// Collects the reports as long as the object lives.
class Reports final : public UnhandledExceptions {
  public:
    // Also calls the function for each report.
    explicit Reports(std::function<void()> function = [] {}) : function_(std::move(function)) {}

    void report(std::string_view where, std::string_view what) override EXCLUDES(mutex_) {
        {
            MutexLock lock(mutex_);
            texts_.push_back(std::string(where) + ": " + std::string(what));
        }
        function_();
    }

    // The reports, each as "WHERE: WHAT".
    std::vector<std::string> texts() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return texts_;
    }

  private:
    const std::function<void()> function_;
    Mutex mutex_;
    std::vector<std::string> texts_ GUARDED_BY(mutex_);
    const Current<UnhandledExceptions>::Publication publication_{*this};
};

}  // namespace sentrova::testing
