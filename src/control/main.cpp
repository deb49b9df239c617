// The entry point of sentrovactl.

#include "control/Program.h"
#include "platform/Environment.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>

#include <fmt/format.h>

namespace {

// Whoever starts the program may have closed its standard streams. The next file that is opened would take the number,
// and the program's output would go into that file. The streams fail instead.
void occupyStandardStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(stream, F_GETFD) == -1) {
            // The lowest free number is taken: this one.
            static_cast<void>(::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY));
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    occupyStandardStreams();
    // A closed pipe is a failed write, which gets its message.
    ::signal(SIGPIPE, SIG_IGN);
    try {
        sentrova::control::Console console;
        // The program may be called by a link from another folder.
        const std::filesystem::path program = sentrova::platform::programPath();
        return sentrova::control::runProgram({argv + 1, argv + argc}, program.parent_path().string(), console);
    } catch (const std::exception& exception) {
        std::fputs(fmt::format("sentrovactl: {}\n", exception.what()).c_str(), stderr);
        return EXIT_FAILURE;
    }
}
