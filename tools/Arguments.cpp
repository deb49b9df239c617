#include "Arguments.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include <fmt/format.h>

namespace sentrova::testing {

namespace {

constexpr int kUsageStatus = 64;

bool contains(std::span<char* const> words, std::string_view wanted) {
    return std::ranges::any_of(words, [wanted](std::string_view word) { return word == wanted; });
}

// The status reports a failed write: a full disk, or a pipe without a reader.
int answer(std::string_view text) {
    fmt::print("{}", text);
    return std::fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

std::optional<std::string_view> Arguments::next() {
    if (words_.empty()) {
        return std::nullopt;
    }
    const std::string_view word = words_.front();
    words_ = words_.subspan(1);
    return word;
}

std::string_view Arguments::valueOf(std::string_view option) {
    const auto value = next();
    if (!value) {
        throw UsageError(fmt::format("{} needs a value", option));
    }
    if (value->starts_with("--")) {
        throw UsageError(fmt::format("{} needs a value before {}", option, *value));
    }
    return *value;
}

std::uint32_t Arguments::numberOf(std::string_view option, std::uint32_t least, std::uint32_t most) {
    const auto text = valueOf(option);
    std::uint32_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < least || number > most) {
        throw UsageError(fmt::format("{} takes a number from {} to {}, not \"{}\"", option, least, most, text));
    }
    return number;
}

UsageError unknownArgument(std::string_view argument) {
    return UsageError(fmt::format("unknown argument \"{}\"", argument));
}

int runTool(std::string_view name, std::string_view usage, int argc, char** argv,
            const std::function<void(Arguments)>& run) {
    try {
        const std::span<char* const> words(argv + std::min(argc, 1), argv + argc);
        if (contains(words, "--help")) {
            return answer(usage);
        }
        if (contains(words, "--version")) {
            return answer(fmt::format("{} {}\n", name, SENTROVA_VERSION));
        }
        run(Arguments(words));
        return EXIT_SUCCESS;
    } catch (const UsageError& error) {
        fmt::print(stderr, "{}: {}\nTry \"{} --help\".\n", name, error.what(), name);
        return kUsageStatus;
    } catch (const std::exception& error) {
        fmt::print(stderr, "{}: {}\n", name, error.what());
        return EXIT_FAILURE;
    }
}

}  // namespace sentrova::testing
