// Reports exceptions that leave a thread, a block of a queue, an observer or a timer.

#pragma once

#include <string_view>

namespace sentrova {

// Receives such exceptions. The agent publishes one as the Current one and logs a line for each exception. Without an
// agent, exceptions are dropped. Safe from any thread.
class UnhandledExceptions {
  public:
    virtual ~UnhandledExceptions() = default;

    // `where` is the label of a queue, or the name of a thread, an operation or a notification. `what` is the text of
    // the exception. An exception from this function is dropped.
    virtual void report(std::string_view where, std::string_view what) = 0;

  protected:
    UnhandledExceptions() = default;
    UnhandledExceptions(const UnhandledExceptions&) = default;
    UnhandledExceptions& operator=(const UnhandledExceptions&) = default;
};

void reportException(std::string_view where, std::string_view what) noexcept;
// Call it only inside a catch block: reports the exception that is being handled.
void reportCurrentException(std::string_view where) noexcept;

// Runs the function and reports its exception under `where`. Returns whether the function ended without an exception.
// The outermost frame of every thread of the agent.
template <class Function>
bool runGuarded(std::string_view where, const Function& function) noexcept {
    try {
        function();
        return true;
    } catch (...) {
        reportCurrentException(where);
        return false;
    }
}

}  // namespace sentrova
