// Keeps log lines that could not be written until a line of their category can be written again.

#pragma once

#include "foundation/run/Mutex.h"

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova {

// Per category: keeps the text of the first hundred lines of level 0 and counts all lines, and remembers the file that
// was written last. Safe from any thread.
class UnwrittenLines {
  public:
    struct Lines {
        std::size_t count = 0;
        std::vector<std::string> errors;
        // Why the latest line was not written.
        std::string reason;
        // This process's latest line of the category was written to the file, so the file ends with a whole line.
        bool isAfterWholeLine = false;
    };

    // Removes and returns the category's lines. `path` is the file that the next line goes to.
    Lines take(std::string_view category, const std::string& path) EXCLUDES(mutex_);

    // Call it after a line of the category was written to the file. Ends the category's outage.
    void noteWritten(std::string_view category, const std::string& path) EXCLUDES(mutex_);

    // Keeps the lines. Returns true if the outage has not been printed on standard error: the caller does that now.
    bool add(std::string_view category, Lines lines) EXCLUDES(mutex_);

  private:
    Mutex mutex_;
    std::map<std::string, Lines, std::less<>> lines_ GUARDED_BY(mutex_);
    std::map<std::string, std::string, std::less<>> lastFile_ GUARDED_BY(mutex_);
    // The category whose outage was printed on standard error, until it is written again. Empty otherwise.
    std::string told_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
