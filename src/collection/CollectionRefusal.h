// Says in the log why one of the two collections does not run, once until that changes.

#pragma once

#include "core/LogSource.h"
#include "foundation/run/Mutex.h"

#include <optional>
#include <string>
#include <string_view>

namespace sentrova {

// One per kind of collection, for the whole process. Safe from any thread.
class CollectionRefusal {
  public:
    // Why nothing may be collected at present; nothing when it may. The agent is disabled, the spool is full, or the
    // spool's folder cannot be used, so that events which are read would be lost.
    static std::optional<std::string> reason();

    // Notes whether the collection may run, and logs a new reason at level 0: "WHAT does not run: REASON".
    void note(const LogSource& log, std::string_view what, const std::optional<std::string>& reason) EXCLUDES(mutex_);

  private:
    Mutex mutex_;
    std::optional<std::string> told_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
