#include "service/CommandLine.h"

#include <string_view>

namespace sentrova {

CommandLineReply replyTo(std::span<const char* const> arguments) {
    constexpr int kUsageError = 64;
    constexpr const char* kUsage =
        "usage: sentrova-agent [--version | --help]\n"
        "\n"
        "Without arguments it runs as the audit agent until it gets SIGTERM: as root, started by the service manager "
        "in\n"
        "the bin folder of its installation.\n";
    const std::string_view argument = arguments.size() == 1 ? arguments.front() : "";
    if (argument == "--version") {
        return {0, "sentrova-agent " SENTROVA_VERSION "\n"};
    }
    return {argument == "--help" ? 0 : kUsageError, kUsage};
}

}  // namespace sentrova
