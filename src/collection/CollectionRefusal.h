// Logs why one of the two collections does not run. Each reason is logged once, until it changes.

#pragma once

#include "core/LogSource.h"
#include "foundation/run/Mutex.h"

#include <optional>
#include <string>
#include <string_view>

namespace sentrova {

// One object per kind of collection and process. Safe from any thread.
class CollectionRefusal {
  public:
    // Returns why nothing may be collected now; nothing if collection may run. The reasons: the agent is disabled, the
    // spool is full, or the spool folder cannot be used, so that events would be lost.
    static std::optional<std::string> reason();

    // Records whether the collection may run, and logs a new reason at level 0: "WHAT does not run: REASON".
    void note(const LogSource& log, std::string_view what, const std::optional<std::string>& reason) EXCLUDES(mutex_);

  private:
    Mutex mutex_;
    std::optional<std::string> told_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
