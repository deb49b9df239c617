// Which file each category of the log is written to.

#pragma once

#include "foundation/files/FileSystem.h"
#include "foundation/run/Mutex.h"
#include "foundation/time/Clock.h"
#include "foundation/time/DateFormat.h"

#include <map>
#include <string>
#include <string_view>

namespace sentrova {

// Survives restarts in the file `logfile.plist` of the configuration folder. Safe from any thread.
class LogFileTable {
  public:
    // By category, the path of the current file.
    using Table = std::map<std::string, std::string, std::less<>>;

    static constexpr std::string_view kExtension = ".log";

    // Reads the stored table, and logs nothing: each line of the log needs the table. What is passed in must outlive
    // the object.
    LogFileTable(FileSystem& files, Clock& clock, DateFormat& dates);

    // Why the stored table was not read; empty when it was, or there is none.
    const std::string& problem() const { return problem_; }

    // The category's file for the day ("yyyy-MM-dd"); empty for a category that has none. A new day, or a category that
    // is not in the table, starts the files of the day for all categories.
    std::string fileFor(std::string_view category, const std::string& date) EXCLUDES(mutex_);

    Table copy() EXCLUDES(mutex_);
    void replace(const std::string& category, const std::string& path) EXCLUDES(mutex_);

  private:
    Table load(FileSystem& files);

    std::string problem_;
    Mutex mutex_{LockRank::log};
    Table table_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
