#include "control/Console.h"

#include "foundation/value/Result.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

constexpr std::size_t kBuffered = 256 * 1024;

bool isWanted(const char* variable) {
    // Safe with threads, because the program never changes its environment.
    const char* const value = std::getenv(variable);  // NOLINT(concurrency-mt-unsafe)
    return value != nullptr && *value != '\0';
}

const char* codeOf(Console::Colour colour) {
    switch (colour) {
        case Console::Colour::red:
            return "\x1b[31m";
        case Console::Colour::yellow:
            return "\x1b[33m";
        case Console::Colour::green:
            return "\x1b[32m";
        case Console::Colour::bold:
            return "\x1b[1m";
    }
    return "";
}

}  // namespace

Console::Console() : isTerminal_(::isatty(STDOUT_FILENO) == 1), isErrorTerminal_(::isatty(STDERR_FILENO) == 1) {}

Console::~Console() {
    flush();
}

void Console::print(std::string_view text) {
    buffer_ += text;
    if (buffer_.size() >= kBuffered) {
        flush();
    }
}

bool Console::flush() {
    std::string_view left = buffer_;
    while (!left.empty() && !failed_) {
        const auto written = ::write(STDOUT_FILENO, left.data(), left.size());
        if (written >= 0) {
            left.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR) {
            failed_ = true;
            problem(fmt::format("the output cannot be written: {}", posixError(errno).description));
        }
    }
    buffer_.clear();
    return !failed_;
}

void Console::problem(std::string_view text) {
    // A standard error that cannot be written is nobody's concern: the exit status tells of the failure too.
    const auto line = fmt::format("sentrovactl: {}\n", text);
    std::fwrite(line.data(), 1, line.size(), stderr);
}

std::string Console::coloured(Colour colour, std::string_view text) const {
    if (!isTerminal_ || isWanted("NO_COLOR")) {
        return std::string(text);
    }
    return fmt::format("{}{}\x1b[0m", codeOf(colour), text);
}

bool Console::confirms(std::string_view question) {
    flush();
    fmt::print(stderr, "{} [y/N] ", question);
    std::fflush(stderr);
    std::string answer;
    std::getline(std::cin, answer);
    return answer == "y" || answer == "yes" || answer == "Y" || answer == "YES";
}

}  // namespace sentrova::control
