// The entry point: answers command-line arguments, or sets up the handling of signals, initialises the service and
// runs it.

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
#include <exception>
#include <span>
#include <utility>

#include <fmt/format.h>

namespace {

using namespace sentrova;  // NOLINT(google-build-using-namespace)

constexpr LogSource kLog("main");

// The first thread that gets here ends the process. Any other thread blocks here forever, so that it does not cut short
// what the first one still writes.
void claimEnd() {
    static std::atomic_flag claimed;
    while (claimed.test_and_set()) {
        ::pause();
    }
}

// Ends the process without static destructors, because threads still run.
[[noreturn]] void leave(int status) {
    std::fflush(nullptr);
    ::_exit(status);
}

// A failed step must not prevent the rest of the stop, even if memory is too short to log the failure.
void attempt(void (*step)()) {
    try {
        runGuarded("main", step);
    } catch (...) {  // NOLINT(bugprone-empty-catch): the failure cannot be reported any more
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

// Returns the exit status.
int runService() {
    try {
        if (AgentServiceHandler::initializeService()) {
            AgentServiceHandler::start();
        }
        return EXIT_SUCCESS;
    } catch (const ConfigurationError&) {
        // The text has already been logged.
        return ConfigurationError::kExitStatus;
    } catch (const AlreadyRunningError& error) {
        // Also on standard error: the log belongs to the other agent.
        fmt::print(stderr, "sentrova-agent: {}\n", error.what());
        return AlreadyRunningError::kExitStatus;
    } catch (const std::exception& exception) {
        kLog.error("The agent cannot continue: {}", exception.what());
        return EXIT_FAILURE;
    }
}

// The agent is never destroyed, because the process ends by _exit.
[[noreturn]] void runAgent() {
    platform::SignalSource::Handlers handlers{{SIGTERM, terminate}, {SIGHUP, AgentServiceHandler::syncNow}};
    for (const int signal : platform::statusSignals()) {
        handlers.emplace(signal, AgentServiceHandler::writeStatus);
    }
    const auto signals = platform::SignalSource::make(std::move(handlers));
    platform::RealHost host;
    Agent agent(host.host());
    signals->resume();
    // The network thread's signal mask does not help if the kernel sends the signal to the process.
    setSignal(SIGPIPE, SIG_IGN);
    // If the process inherited it as ignored, the exit statuses of child processes would be lost.
    setSignal(SIGCHLD, SIG_DFL);
    host.start();
    const int status = runService();
    claimEnd();
    attempt(AgentServiceHandler::end);
    leave(status);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        return answer({argv + 1, argv + argc});
    }
    // For files that other programs create for the agent. The agent's own files set their permissions.
    ::umask(S_IRWXG | S_IRWXO);
    try {
        runAgent();
    } catch (const std::exception& exception) {
        // There is no log without an agent.
        fmt::print(stderr, "sentrova-agent: {}\n", exception.what());
        return EXIT_FAILURE;
    }
}
