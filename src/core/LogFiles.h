// The files of the log: one per category and day in the logs folder, and the archive of old ones.

#pragma once

#include "core/LogFileTable.h"
#include "core/UnwrittenLines.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/DispatchQueue.h"
#include "foundation/time/Clock.h"
#include "foundation/time/DateFormat.h"
#include "foundation/value/Result.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace sentrova {

// All loggers write to the same files. Safe from any thread; each line opens its file, is appended whole and closes the
// file. A message with control characters or line breaks in it cannot pass for another line, and a line never continues
// one that a crash or a full disk cut short.
//
// A missing logs folder is made, with its archive. Lines that still cannot be written are announced ahead of the next
// line of their category that can be, and those of level 0 among them repeated, up to a hundred. The first line that
// cannot be written is told on standard error, once until that category is written again.
class LogFiles {
  public:
    // What is passed in must outlive the object.
    LogFiles(FileSystem& files, Clock& clock, DateFormat& dates);

    // Why the stored table of the files was not read; empty when it was, or there is none.
    const std::string& problem() const { return table_.problem(); }

    // Appends a line to the file of the category; a category without a file loses it.
    void write(std::string_view category, std::string_view className, std::int32_t level, std::string_view message);

    // Both return at once. The work can take minutes, so it waits its turn on one thread: no caller is held up, and no
    // file is zipped twice at a time.

    // Continues each current file that is over 10 MiB under a new name and zips the old one.
    void continueLargeFiles();
    // Zips log files that have not been written for a week into the archive folder, which must exist.
    void archiveOldFiles();

    // Waits for the file that is being zipped; none is zipped after that.
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
    // Last, so that its thread has ended before what it works on goes.
    DispatchQueue housekeeping_;
};

}  // namespace sentrova
