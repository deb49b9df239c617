// The process's entry: set up the termination by SIGTERM, initialise the service, run it.

#include "core/AgentServiceHandler.h"
#include "core/ConfigurationError.h"
#include "core/LogSource.h"
#include "foundation/DispatchQueue.h"
#include "platform/SignalSource.h"
#include "platform/Transaction.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

using namespace sentrova;  // NOLINT(google-build-using-namespace)

constexpr LogSource kLog("main");

// Ends the process without its static destructors, which would run under live threads.
[[noreturn]] void leave(int status) {
    std::fflush(nullptr);
    ::_exit(status);
}

void terminate() {
    {
        const platform::Transaction transaction;
        AgentServiceHandler::stop();
    }
    leave(EXIT_SUCCESS);
}

void logUnhandled(std::string_view where, std::string_view what) {
    kLog.error("unhandledException", "{}: {}", where, what);
}

}  // namespace

int main() {
    // For the files that other programs make for the agent; its own say who may use them.
    ::umask(S_IRWXG | S_IRWXO);
    DispatchQueue::setExceptionHandler(logUnhandled);
    const auto termination = platform::SignalSource::make(SIGTERM, terminate);
    termination->resume();
    struct sigaction ignore{};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    ::sigaction(SIGTERM, &ignore, nullptr);
    // Where the kernel sends it to the process, the network thread's own mask does not keep it away.
    ::sigaction(SIGPIPE, &ignore, nullptr);
    try {
        if (AgentServiceHandler::initializeService()) {
            AgentServiceHandler::start();
        }
    } catch (const ConfigurationError&) {
        // Its text is in the log already.
        leave(ConfigurationError::kExitStatus);
    } catch (const std::exception& exception) {
        kLog.error(__func__, "The agent cannot go on: {}", exception.what());
        leave(EXIT_FAILURE);
    }
    leave(EXIT_SUCCESS);
}
