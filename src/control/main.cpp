// The entry point of sentrovactl.

#include "control/Program.h"
#include "platform/Environment.h"

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>

#include <fmt/format.h>

int main(int argc, char** argv) {
    // A closed pipe is a failed write, which gets its message.
    ::signal(SIGPIPE, SIG_IGN);
    try {
        sentrova::control::Console console;
        // The program may be called by a link from another folder.
        const std::filesystem::path program = sentrova::platform::programPath();
        return sentrova::control::runProgram({argv + 1, argv + argc}, program.parent_path().string(), console);
    } catch (const std::exception& exception) {
        fmt::print(stderr, "sentrovactl: {}\n", exception.what());
        return EXIT_FAILURE;
    }
}
