#include "core/Logger.h"

#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "core/PropertyListHandler.h"
#include "foundation/run/Current.h"

#include <stdexcept>

#include <fmt/format.h>

namespace sentrova {

namespace {
constexpr LogSource kLog("Logger");
}  // namespace

Logger& Logger::getInstance() {
    return Current<Logger>::get();
}

// The logger starts in two steps, because reading the configuration may itself log:
// 1. After construction the level is Error. The configured level is not known yet, so only errors are written. The
//    reading below may log some, for example that the configuration file is damaged.
// 2. load sets the level from the file. It then logs why the table of log files was not read, if so: the table was read
//    during construction, before any line could be logged (see LogFiles::LogFiles).
void Logger::load(NotificationCenter& notifications) {
    const auto configuration = PropertyListHandler::initWithFile(
        fmt::format("{}/{}", GlobalConstants::CONF_PATH, GlobalConstants::MY_CONFIGURATIONS_FILE));
    currentLogLevel_ = configuration.GetValueForKey(GlobalConstants::LOG_LEVEL).intValue();
    wakeObserver_ = notifications.addObserver(kDidWakeNotification, [this](const auto&) { rotateLog(); });
    if (const auto& problem = files_.problem(); !problem.empty()) {
        file(LogCategory::Config, "Logger", LogLevel::Error, __func__, problem);
    }
}

void Logger::file(std::string_view category, std::string_view print, std::int32_t level, std::string_view /*func*/,
                  std::string_view str) {
    if (currentLogLevel_ >= level) {
        files_.write(category, print, level, str);
    }
}

std::string Logger::formatTypeToString(std::int32_t level) {
    switch (level) {
        case LogLevel::Error:
            return "ERROR";
        case LogLevel::Info:
            return "INFO";
        case LogLevel::Debug:
            return "DEBUG";
        default:
            throw std::invalid_argument("Unexpected FormatType.");
    }
}

void Logger::validateLogSize() {
    kLog.info("Going to rotate log");
    files_.continueLargeFiles();
}

void Logger::rotateLog() {
    kLog.info("Zipping Log");
    files_.archiveOldFiles();
}

}  // namespace sentrova
