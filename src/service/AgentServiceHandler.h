// The life of the service: checks and set-up, the run of its operations, and the stop. Acts on the current Agent.

#pragma once

#include "operations/ConcurrentOperationAbstract.h"

#include <memory>
#include <string_view>

namespace sentrova {

class AgentServiceHandler {
  public:
    AgentServiceHandler() = delete;

    // Checks the system's version and the user, locks the installation, loads the configuration, synchronises it with
    // the server (waits until an answer has been applied), and sets up the spool and the login history. Returns false,
    // with nothing created, on an unsupported system or if the user is not root. Throws AlreadyRunningError if another
    // agent runs in the installation.
    static bool initializeService();

    // Adds the agent's operations to a new main queue and returns when all of them have finished; at once if a stop has
    // been requested.
    static void start();

    // Cancels all operations without waiting for them, and prevents further additions for the life of the process. May
    // be called from any thread, also before or during start.
    static void stop();

    // Asks for a synchronisation of the configuration now. Ends the pause of one that is under way. Does not wait.
    static void syncNow();
    // Writes the status file. Does nothing before the installation is locked.
    static void writeStatus();

    // The last step before the process ends, after stop or start: logs the number of discarded events, and writes the
    // login history.
    static void end();

    // The main queue. Before start there is none: additions are dropped, and cancels and queries find nothing. After a
    // stop, additions are dropped too.
    static void addOperationToMainQueue(const std::shared_ptr<ConcurrentOperationAbstract>& operation);
    static void cancelOperationsOnMainQueue(std::string_view name);
    // Whether the first operation with that name is executing; false if there is no such operation.
    static bool getOperationStatusOnMainQueue(std::string_view name);
};

}  // namespace sentrova
