// Chooses names for new spool files: "event_" and the present time, down to the millisecond. Not thread-safe.

#pragma once

#include "foundation/files/FileSystem.h"
#include "foundation/run/Clock.h"
#include "foundation/time/DateFormat.h"

#include <chrono>
#include <string>
#include <string_view>

namespace sentrova {

class SpoolFileNames {
  public:
    static constexpr std::string_view kPrefix = "event_";

    // All arguments must outlive the object.
    SpoolFileNames(FileSystem& files, Clock& clock, DateFormat& dates) : files_(files), clock_(clock), dates_(dates) {}

    // An unused name in the folder: the current millisecond or, if that is taken, the next free one.
    std::string next(const std::string& folder);

  private:
    FileSystem& files_;
    Clock& clock_;
    DateFormat& dates_;
    // The time stamp in the newest name.
    std::chrono::sys_time<std::chrono::milliseconds> lastStamp_;
};

}  // namespace sentrova
