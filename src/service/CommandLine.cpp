#include "service/CommandLine.h"

#include <algorithm>
#include <string_view>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr int kUsageError = 64;
constexpr std::string_view kUsage =
    "usage: sentrova-agent [--version | --help]\n"
    "\n"
    "Without arguments it runs as the audit agent until it gets SIGTERM: as root, started by the service manager in\n"
    "the bin folder of its installation.\n";

bool isKnown(std::string_view argument) {
    return argument == "--version" || argument == "--help";
}

}  // namespace

const char* const kAgentVersion = SENTROVA_VERSION;

CommandLineReply replyTo(std::span<const char* const> arguments) {
    const auto wrong = std::ranges::find_if_not(arguments, isKnown);
    if (wrong != arguments.end()) {
        return {kUsageError, fmt::format("sentrova-agent: unknown argument \"{}\"\n{}", *wrong, kUsage)};
    }
    if (arguments.size() != 1) {
        return {kUsageError, fmt::format("sentrova-agent: only one argument is allowed\n{}", kUsage)};
    }
    if (arguments.front() == std::string_view("--version")) {
        return {0, "sentrova-agent " SENTROVA_VERSION "\n"};
    }
    return {0, std::string(kUsage)};
}

}  // namespace sentrova
