// The process's entry: answer a person's arguments, or set up the termination by SIGTERM, initialise the service and
// run it.

#include "core/ConfigurationError.h"
#include "core/LogSource.h"
#include "foundation/run/Unhandled.h"
#include "platform/RealHost.h"
#include "platform/SignalSource.h"
#include "platform/Transaction.h"
#include "service/Agent.h"
#include "service/AgentLock.h"
#include "service/AgentServiceHandler.h"
#include "service/CommandLine.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <span>

#include <fmt/format.h>

namespace {

using namespace sentrova;  // NOLINT(google-build-using-namespace)

constexpr LogSource kLog("main");

// The first thread to come here is the one that ends the process. Any other waits for that, since it would cut short
// what that thread still writes.
void claimEnd() {
    static std::atomic_flag claimed;
    while (claimed.test_and_set()) {
        ::pause();
    }
}

// Ends the process without its static destructors, which would run under live threads.
[[noreturn]] void leave(int status) {
    std::fflush(nullptr);
    ::_exit(status);
}

// The stop must go on after a step that failed, even where memory is too short to log the failure.
void attempt(void (*step)()) {
    try {
        runGuarded("main", step);
    } catch (...) {  // NOLINT(bugprone-empty-catch): there is nobody left to tell
    }
}

void terminate() {
    claimEnd();
    attempt([] {
        const platform::Transaction transaction;
        attempt(AgentServiceHandler::stop);
        AgentServiceHandler::end();
    });
    leave(EXIT_SUCCESS);
}

int answer(std::span<const char* const> arguments) {
    const auto reply = replyTo(arguments);
    auto* const stream = reply.status == EXIT_SUCCESS ? stdout : stderr;
    const bool written = std::fputs(reply.text.c_str(), stream) >= 0 && std::fflush(stream) == 0;
    return written ? reply.status : EXIT_FAILURE;
}

void setSignal(int signal, void (*handler)(int)) {
    struct sigaction action{};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    ::sigaction(signal, &action, nullptr);
}

// The exit status.
int runService() {
    try {
        if (AgentServiceHandler::initializeService()) {
            AgentServiceHandler::start();
        }
        return EXIT_SUCCESS;
    } catch (const ConfigurationError&) {
        // Its text is in the log already.
        return ConfigurationError::kExitStatus;
    } catch (const AlreadyRunningError& error) {
        // In the log, too, which is the other agent's.
        fmt::print(stderr, "sentrova-agent: {}\n", error.what());
        return AlreadyRunningError::kExitStatus;
    } catch (const std::exception& exception) {
        kLog.error("The agent cannot go on: {}", exception.what());
        return EXIT_FAILURE;
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        return answer({argv + 1, argv + argc});
    }
    // For the files that other programs make for the agent; its own say who may use them.
    ::umask(S_IRWXG | S_IRWXO);
    const auto termination = platform::SignalSource::make(SIGTERM, terminate);
    platform::RealHost host;
    // Not destroyed: the process leaves by _exit.
    Agent agent(host.host());
    termination->resume();
    setSignal(SIGTERM, SIG_IGN);
    // Where the kernel sends it to the process, the network thread's own mask does not keep it away.
    setSignal(SIGPIPE, SIG_IGN);
    // Inherited as ignored, it would hide how child processes end.
    setSignal(SIGCHLD, SIG_DFL);
    host.start();
    const int status = runService();
    claimEnd();
    attempt(AgentServiceHandler::end);
    leave(status);
}
