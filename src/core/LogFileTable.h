// The table of the current log file of each category.

#pragma once

#include "foundation/files/FileSystem.h"
#include "foundation/run/Clock.h"
#include "foundation/run/Mutex.h"
#include "foundation/time/DateFormat.h"

#include <map>
#include <string>
#include <string_view>

namespace sentrova {

// Stored in `logfile.plist` in the configuration folder, so that it survives restarts. Safe from any thread.
class LogFileTable {
  public:
    // The path of the current file, by category.
    using Table = std::map<std::string, std::string, std::less<>>;

    static constexpr std::string_view kExtension = ".log";

    // Reads the stored table. Logs nothing, because each log line needs the table. The arguments must outlive the
    // object.
    LogFileTable(FileSystem& files, Clock& clock, DateFormat& dates);

    // Why the stored table was not read. Empty if it was read or is missing.
    const std::string& problem() const { return problem_; }

    // The category's file for the day ("yyyy-MM-dd"). Empty for an unknown category. On a new day, or for a category
    // without an entry, all categories switch to the files of the day.
    std::string fileFor(std::string_view category, const std::string& date) EXCLUDES(mutex_);

    Table copy() EXCLUDES(mutex_);
    // Stores the category's new path in memory and in the file. A failure to save is logged.
    void replace(const std::string& category, const std::string& path) EXCLUDES(mutex_);

  private:
    Table load(FileSystem& files);

    std::string problem_;
    Mutex mutex_{LockRank::log};
    Table table_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
