// The program's answer to command-line arguments. The service manager passes none.

#pragma once

#include <span>
#include <string>

namespace sentrova {

// The agent's version, as --version tells it.
extern const char* const kAgentVersion;

struct CommandLineReply {
    // The exit status: 0, or 64 (sysexits' "usage error"). With 64 the text belongs on standard error.
    int status = 0;
    std::string text;
};

// `arguments` are those after the program's name. A wrong one is named before the usage.
CommandLineReply replyTo(std::span<const char* const> arguments);

}  // namespace sentrova
