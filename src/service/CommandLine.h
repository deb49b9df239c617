// What the program answers when a person starts it with arguments. The service manager passes none.

#pragma once

#include <span>
#include <string>

namespace sentrova {

struct CommandLineReply {
    // What the process exits with: 0, or 64 (sysexits' "usage error") for a text that belongs on standard error.
    int status = 0;
    std::string text;
};

// The arguments are those after the program's name.
CommandLineReply replyTo(std::span<const char* const> arguments);

}  // namespace sentrova
