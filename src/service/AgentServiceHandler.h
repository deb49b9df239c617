// The service's life: checks and set-up, the start of its operations, and its stop. Operations of the current Agent.

#pragma once

#include "operations/ConcurrentOperationAbstract.h"

#include <memory>
#include <string_view>

namespace sentrova {

class AgentServiceHandler {
  public:
    AgentServiceHandler() = delete;

    // Checks the system's version and the user, takes the installation's lock, loads the configuration, synchronises
    // it with the server (which takes until the server has answered and the answer has been applied), and sets up the
    // spool and the login history. False, with nothing made, on a system that is not supported or as any user but root.
    // Throws AlreadyRunningError while another agent is at work in the installation.
    static bool initializeService();

    // Adds the agent's operations to a new main queue and returns when all of them have finished; at once when a stop
    // has been asked for.
    static void start();

    // Cancels all operations, without waiting for them, and keeps others from being added for the life of the process.
    // From any thread, also before or during start.
    static void stop();

    // What is left to do before the process ends, after stop or start: names the events that are given up, and writes
    // the login history.
    static void end();

    // The main queue. Before start there is none: additions are dropped, cancels and queries find nothing. After a stop
    // additions are dropped too.
    static void addOperationToMainQueue(const std::shared_ptr<ConcurrentOperationAbstract>& operation);
    static void cancelOperationsOnMainQueue(std::string_view name);
    // Whether the first operation of the name is executing.
    static bool getOperationStatusOnMainQueue(std::string_view name);
};

}  // namespace sentrova
