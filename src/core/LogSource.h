// Writes a class's log messages. Names the class once, and formats a message only if its level is enabled. Without an
// agent, messages are dropped. Safe from any thread.

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

    // The same class, but another category.
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

    // Whether a level is enabled. For messages that are costly to prepare.
    static bool isWritten(std::int32_t level) {
        const auto* const logger = Current<Logger>::orNull();
        return logger && logger->currentLogLevel() >= level;
    }

  private:
    void write(std::int32_t level, fmt::string_view format, fmt::format_args arguments) const {
        auto* const logger = Current<Logger>::orNull();
        if (logger && logger->currentLogLevel() >= level) {
            logger->file(category_, className_, level, "", fmt::vformat(format, arguments));
        }
    }

    std::string_view className_;
    std::string_view category_;
};

// The text as a message shows it: "(null)" if it is absent.
inline std::string orNull(const std::optional<std::string>& text) {
    return text.value_or("(null)");
}

}  // namespace sentrova

// Messages show a value by its description.
template <>
struct fmt::formatter<sentrova::Value> : fmt::formatter<fmt::string_view> {
    template <class Context>
    auto format(const sentrova::Value& value, Context& context) const {
        const std::string text = value.description();
        return fmt::formatter<fmt::string_view>::format(text, context);
    }
};
