// The service's life: checks and set-up, the start of its operations, and its stop. Owns the main queue, on which every
// long-running piece of the agent runs as a named operation.

#pragma once

#include "operations/ConcurrentOperationAbstract.h"

#include <memory>
#include <string_view>

namespace sentrova {

class AgentServiceHandler {
  public:
    AgentServiceHandler() = delete;

    // Checks the system's version and the user, loads the configuration, synchronises it with the server (which takes
    // until the server has answered), and sets up the spool and the login history. False, with nothing made, on a
    // system that is not supported or as any user but root.
    static bool initializeService();

    // Adds the agent's operations to a new main queue and returns when all of them have finished.
    static void start();

    // Cancels all operations, without waiting for them. From any thread.
    static void stop();

    // The main queue. Before start there is none: additions are dropped, cancels and queries find nothing.
    static void addOperationToMainQueue(const std::shared_ptr<ConcurrentOperationAbstract>& operation);
    static void cancelOperationsOnMainQueue(std::string_view name);
    // Whether the first operation of the name is executing.
    static bool getOperationStatusOnMainQueue(std::string_view name);
};

}  // namespace sentrova
