// The agent's log, as other classes use it.

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

// A line is "[time][class][process:thread][level]message" and CR LF, in UTF-8. Until load, only errors are written.
// Safe from any thread.
class Logger {
  public:
    static constexpr const char* kDidWakeNotification = "NSWorkspaceDidWakeNotification";

    // The running agent's logger. Throws std::logic_error without an agent.
    static Logger& getInstance();

    // The files must outlive the logger.
    explicit Logger(LogFiles& files) : files_(files) {}

    // Reads the level from "LogLevel" in `myconfigurations.plist` (0 if it is missing). From then on, and for as long
    // as the logger lives, archives old logs after each wake of the machine. Call it once.
    void load(NotificationCenter& notifications);

    // Writes the message if its level is at most the logger's level. A message in an unknown category is dropped.
    void file(std::string_view category, std::string_view print, std::int32_t level, std::string_view func,
              std::string_view str);

    // "ERROR", "INFO" or "DEBUG". Throws std::invalid_argument for any other number.
    static std::string formatTypeToString(std::int32_t level);

    // Both queue their work and return at once: see LogFiles.
    //
    // Starts new files for current ones that have grown too large. Called at the agent's start.
    void validateLogSize();
    // Archives log files that were last written more than a week ago.
    void rotateLog();

    std::int32_t currentLogLevel() const { return currentLogLevel_; }
    void setCurrentLogLevel(std::int32_t level) { currentLogLevel_ = level; }

  private:
    LogFiles& files_;
    std::atomic<std::int32_t> currentLogLevel_ = LogLevel::Error;
    Subscription wakeObserver_;
};

}  // namespace sentrova
