// The agent's log, as its classes see it.

#pragma once

#include "core/LogFiles.h"
#include "foundation/run/NotificationCenter.h"
#include "foundation/run/Subscription.h"

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

// A line is "[time][class][process:thread][level]message" and CR LF, in UTF-8. A logger writes errors only until it is
// loaded: what is read for that may itself have something to log. Safe from any thread.
class Logger {
  public:
    static constexpr const char* kDidWakeNotification = "NSWorkspaceDidWakeNotification";

    // The agent's one.
    static Logger& getInstance();

    // The files must outlive the logger.
    explicit Logger(LogFiles& files) : files_(files) {}

    // Reads "LogLevel" of `myconfigurations.plist`, 0 when there is none, and archives old logs after each wake of the
    // machine for as long as the logger lives.
    void load(NotificationCenter& notifications);

    // Writes the message when the logger's level is at least the message's. A category other than the three has no
    // file: its messages are lost.
    void file(std::string_view category, std::string_view print, std::int32_t level, std::string_view func,
              std::string_view str);

    // "ERROR", "INFO" or "DEBUG"; throws std::invalid_argument on any other number.
    static std::string formatTypeToString(std::int32_t level);

    // Continues current files that have grown too large under a new name. For the start of the agent. Returns at once,
    // as rotateLog does: see LogFiles.
    void validateLogSize();
    // Archives log files that have not been written for a week.
    void rotateLog();

    std::int32_t currentLogLevel() const { return currentLogLevel_; }
    void setCurrentLogLevel(std::int32_t level) { currentLogLevel_ = level; }

  private:
    LogFiles& files_;
    std::atomic<std::int32_t> currentLogLevel_ = LogLevel::Error;
    Subscription wakeObserver_;
};

}  // namespace sentrova
