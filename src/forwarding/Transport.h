// Shared by all requests to the audit server: the session, the address in use, and whether the server is believed to be
// reachable.

#pragma once

#include "core/GlobalVariables.h"
#include "core/Statistics.h"
#include "forwarding/AddressChoice.h"
#include "foundation/net/UrlSession.h"
#include "foundation/run/Observers.h"
#include "foundation/run/Subscription.h"

#include <atomic>
#include <functional>

namespace sentrova {

// Safe from any thread.
class Transport {
  public:
    // All arguments must outlive the object.
    Transport(GlobalVariables& configuration, UrlSession& session, Statistics& statistics)
        : configuration_(configuration), session_(session), statistics_(statistics), choice_(configuration) {}

    GlobalVariables& configuration() { return configuration_; }
    UrlSession& session() { return session_; }
    Statistics& statistics() { return statistics_; }
    AddressChoice& addresses() { return choice_; }

    // Initially true, so that a first delivery is attempted.
    bool isConnected() const { return connected_; }
    // A change of the flag stores the connection in use in `myconfigurations.plist`.
    void setIsConnected(bool flag);

    // Calls the function whenever the server has answered a request with success: at each setIsConnected(true), whether
    // or not the flag changes, on the calling thread. The subscription may outlive the object.
    Subscription observeSuccess(std::function<void()> function);

  private:
    struct Success {};

    GlobalVariables& configuration_;
    UrlSession& session_;
    Statistics& statistics_;
    AddressChoice choice_;
    std::atomic<bool> connected_ = true;
    Observers<Success> successes_;
};

}  // namespace sentrova
