// The agent's log: one file a category and day in the logs folder.

#pragma once

#include "foundation/Subscription.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

namespace sentrova {

struct LogCategory {
    static constexpr std::string_view Config = "Config";
    static constexpr std::string_view Event = "Event";
    static constexpr std::string_view Communication = "Communication";
};

struct LogLevel {
    static constexpr std::int32_t Error = 0;
    static constexpr std::int32_t Info = 1;
    static constexpr std::int32_t Debug = 2;
};

// A line is "[time][class][process:thread][level]message" and CR LF, in UTF-8. All loggers share the table of current
// files, which survives restarts in `logfile.plist`; each has a level of its own, read when it is made. Safe from any
// thread; each line opens the file, is appended whole and closes the file. A message with control characters or line
// breaks in it cannot pass for another line, and a line never continues one that a crash or a full disk cut short.
//
// A missing logs folder is made, with its archive. Lines that still cannot be written are announced ahead of the next
// line of their category that can be, and those of level 0 among them repeated, up to a hundred. The first line that
// cannot be written is told on standard error, once until that category is written again.
class Logger {
  public:
    static constexpr const char* kDidWakeNotification = "NSWorkspaceDidWakeNotification";

    // The shared logger, made by the first call.
    static Logger& getInstance();

    // Reads "LogLevel" of `myconfigurations.plist`, 0 when there is none, and archives old logs after each wake of the
    // machine for as long as the object lives.
    Logger();

    // Writes the message when the logger's level is at least the message's. A category other than the three has no
    // file: its messages are lost.
    void file(std::string_view category, std::string_view print, std::int32_t level, std::string_view func,
              std::string_view str);

    // "ERROR", "INFO" or "DEBUG"; throws std::invalid_argument on any other number.
    static std::string formatTypeToString(std::int32_t level);

    // Both log that they begin and return at once. The work itself can take minutes, so it waits its turn on one thread
    // of the log's own: no caller is held up, and no file is zipped twice at a time.

    // Continues each current file that is over 10 MiB under a new name and zips the old one. For the start of the
    // agent.
    void validateLogSize();

    // Zips log files that have not been written for a week into the archive folder, which must exist.
    void rotateLog();

    std::int32_t currentLogLevel() const { return currentLogLevel_; }
    void setCurrentLogLevel(std::int32_t level) { currentLogLevel_ = level; }

  private:
    explicit Logger(std::int32_t level) : currentLogLevel_(level) {}
    friend struct SharedLogger;

    void load();

    std::atomic<std::int32_t> currentLogLevel_;
    Subscription wakeObserver_;
};

}  // namespace sentrova
