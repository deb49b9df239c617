// Lines of the log that could not be written, until one of their category can be.

#pragma once

#include "foundation/run/Mutex.h"

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova {

// Keeps the text of the first hundred lines of level 0 per category, and the number of all. Also knows which file each
// category has been written to last. Safe from any thread.
class UnwrittenLines {
  public:
    struct Lines {
        std::size_t count = 0;
        std::vector<std::string> errors;
        // Why the last of them was not written.
        std::string reason;
        // This process's last line of the category went into the file, and so the file ends with a whole line.
        bool isAfterWholeLine = false;
    };

    Lines take(std::string_view category, const std::string& path) EXCLUDES(mutex_);

    void noteWritten(std::string_view category, const std::string& path) EXCLUDES(mutex_);

    // True when the outage has not been told outside the log, which the caller does now.
    bool add(std::string_view category, Lines lines) EXCLUDES(mutex_);

  private:
    Mutex mutex_;
    std::map<std::string, Lines, std::less<>> lines_ GUARDED_BY(mutex_);
    std::map<std::string, std::string, std::less<>> lastFile_ GUARDED_BY(mutex_);
    // The category whose outage was told on standard error, until it is written again; empty while there is none.
    std::string told_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
