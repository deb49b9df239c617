// The log files: one per category and day in the logs folder, and an archive of old ones.

#pragma once

#include "core/LogFileTable.h"
#include "core/UnwrittenLines.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/Clock.h"
#include "foundation/run/DispatchQueue.h"
#include "foundation/time/DateFormat.h"
#include "foundation/value/Result.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace sentrova {

// All loggers write to the same files. Each line opens its file, is appended whole and closes the file. A message with
// control characters or line breaks cannot imitate another line. A line never continues one that a crash or a full disk
// cut short. Safe from any thread.
//
// A missing logs folder is created with its archive. If a line still cannot be written, the outage is printed on
// standard error, once until that category is written again. As soon as a line of the category can be written, the log
// first says how many lines are missing and repeats those of level 0, up to a hundred.
class LogFiles {
  public:
    // The arguments must outlive the object.
    LogFiles(FileSystem& files, Clock& clock, DateFormat& dates);

    // Why the stored table of log files was not read. Empty if it was read or is missing.
    const std::string& problem() const { return table_.problem(); }

    // Appends a line to the category's file. A line of an unknown category is dropped.
    void write(std::string_view category, std::string_view className, std::int32_t level, std::string_view message);

    // The next two functions queue their work and return at once. The work may take minutes and runs on one thread, so
    // that no caller is delayed and no file is zipped twice at a time.

    // For each current file above 10 MiB: the log continues in a new file, and the old one is zipped.
    void continueLargeFiles();
    // Zips log files that were last written more than a week ago into the archive folder, which must exist.
    void archiveOldFiles();

    // Waits for the task in progress and drops the queued ones.
    void close() { housekeeping_.close(); }

  private:
    std::string lineOf(Date now, std::string_view className, std::int32_t level, std::string_view message);
    Result<Done> appendElsewhere(const Error& why, std::string_view category, const std::string& path,
                                 std::string_view text);
    Result<Done> appendBesideLink(std::string_view category, const std::string& path, std::string_view text);
    bool makeFolders();
    std::string continuationOf(const std::string& path);
    void continueIfLarge(const std::string& category, const std::string& path);
    void goBackTo(const std::string& category, const std::string& path, const std::string& continuation);
    void archiveFilesBefore(Date cutoff);

    FileSystem& files_;
    Clock& clock_;
    DateFormat& dates_;
    LogFileTable table_;
    UnwrittenLines unwritten_;
    // The last member, so that its thread ends before the members it uses are destroyed.
    DispatchQueue housekeeping_;
};

}  // namespace sentrova
