// How a class writes to the log: its name once, and messages that are formatted only when their level is written.
// Without an agent nothing is written.

#pragma once

#include "core/Logger.h"
#include "foundation/run/Current.h"
#include "foundation/value/Value.h"

#include <optional>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace sentrova {

class LogSource {
  public:
    constexpr explicit LogSource(std::string_view className, std::string_view category = LogCategory::Config)
        : className_(className), category_(category) {}

    // The same class's messages in another category's file.
    constexpr LogSource in(std::string_view category) const { return LogSource(className_, category); }

    template <class... Arguments>
    void error(fmt::format_string<Arguments...> format, Arguments&&... arguments) const {
        write(LogLevel::Error, format, fmt::make_format_args(arguments...));
    }
    template <class... Arguments>
    void info(fmt::format_string<Arguments...> format, Arguments&&... arguments) const {
        write(LogLevel::Info, format, fmt::make_format_args(arguments...));
    }
    template <class... Arguments>
    void debug(fmt::format_string<Arguments...> format, Arguments&&... arguments) const {
        write(LogLevel::Debug, format, fmt::make_format_args(arguments...));
    }

    // For messages whose parts are costly to make.
    static bool isWritten(std::int32_t level) {
        const auto* const logger = Current<Logger>::orNull();
        return logger && logger->currentLogLevel() >= level;
    }

  private:
    void write(std::int32_t level, fmt::string_view format, fmt::format_args arguments) const {
        if (isWritten(level)) {
            Logger::getInstance().file(category_, className_, level, "", fmt::vformat(format, arguments));
        }
    }

    std::string_view className_;
    std::string_view category_;
};

// How an absent text reads in a message.
inline std::string orNull(const std::optional<std::string>& text) {
    return text.value_or("(null)");
}

}  // namespace sentrova

// A value inside a message reads as its description.
template <>
struct fmt::formatter<sentrova::Value> : fmt::formatter<fmt::string_view> {
    template <class Context>
    auto format(const sentrova::Value& value, Context& context) const {
        const std::string text = value.description();
        return fmt::formatter<fmt::string_view>::format(text, context);
    }
};
