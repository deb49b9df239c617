// Which of the server's addresses the next request goes to. docs/protocol.md has the table.
//
// An address combines a connection (port and scheme) with a form of the host's name: 3 connections x 4 host forms = 12
// addresses. The two parts are independent, so the relay's name may be combined with another connection's port. After a
// failure the rotation moves to the next host form, and after the last host form to the next connection. It never
// resets while the process runs, and a success keeps the address in use.
//
// Without a relay, connection 0 uses port and scheme of the agent connector, and host form 0 is the fully qualified
// name. The rotation still visits all 12 positions, so some addresses come up more than once.

#pragma once

#include "core/Configuration.h"
#include "core/GlobalVariables.h"
#include "foundation/run/Mutex.h"

#include <cstdint>
#include <string>
#include <vector>

namespace sentrova {

// The address of one request. All parts come from the same snapshot of the configuration. A text that is not configured
// reads "(null)".
struct ServerAddress {
    std::string scheme;
    std::string host;
    std::int64_t port = 0;
    // The connection in use. Without a relay, connection 0 gives agentConnector.
    ConnectionType type = ConnectionType::relay;

    friend bool operator==(const ServerAddress&, const ServerAddress&) = default;
};

// A position in the rotation through the addresses.
struct AddressPosition {
    static constexpr int kConnections = 3;
    static constexpr int kHostForms = 4;

    // 0 relay, 1 agent connector, 2 product connector.
    int currentPort = 0;
    // 0 relay name (fully qualified name without a relay), 1 fully qualified name, 2 IP address, 3 short name.
    int currentHostname = 0;
    // True until the first address has been chosen. That address takes its scheme from the configured type: at
    // connection 0 this is the relay's scheme, even without a relay.
    bool isFirst = false;

    // The position where a process begins: host form 0 for the relay, host form 1 for the other connections.
    static AddressPosition first(ConnectionType type);
    AddressPosition next() const;
};

// The address at the position. A pure function of its arguments.
ServerAddress addressAt(const Configuration& configuration, AddressPosition position);

// The different addresses in the order in which a new process tries them.
std::vector<ServerAddress> addressesInTurn(const Configuration& configuration);

// The position in use, shared by all requests of the process. Safe from any thread.
class AddressChoice {
  public:
    // Begins at the first position of the configured type. The configuration must outlive the object.
    explicit AddressChoice(GlobalVariables& configuration);

    // current returns the address in use. next moves to the next position first. Both use the configuration of this
    // moment, and store the connection in use as the configuration's type.
    ServerAddress current() EXCLUDES(mutex_);
    ServerAddress next() EXCLUDES(mutex_);

  private:
    ServerAddress choose() REQUIRES(mutex_);

    GlobalVariables& configuration_;
    Mutex mutex_{LockRank::choice};
    AddressPosition position_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
