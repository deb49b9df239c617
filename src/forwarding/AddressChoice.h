// Which of the server's addresses a request goes to.
//
// An address combines a connection (port and scheme) with a form of the host's name; the two are chosen independently.
// Each connection is tried with all host forms before the next connection. docs/protocol.md has the table.

#pragma once

#include "core/Configuration.h"
#include "core/GlobalVariables.h"
#include "foundation/run/Mutex.h"

#include <cstdint>
#include <string>

namespace sentrova {

// The address of one request, all of it from one configuration. A text that is not configured reads "(null)".
struct ServerAddress {
    std::string scheme;
    std::string host;
    std::int64_t port = 0;
    // The connection that is used in fact: without a relay, connection 0 is the agent connector.
    ConnectionType type = ConnectionType::relay;

    friend bool operator==(const ServerAddress&, const ServerAddress&) = default;
};

// A position in the rotation through the addresses.
struct AddressPosition {
    static constexpr int kConnections = 3;
    static constexpr int kHostForms = 4;

    // 0 relay, 1 agent connector, 2 product connector.
    int currentPort = 0;
    // 0 relay or else fully qualified name, 1 fully qualified name, 2 IP address, 3 short name.
    int currentHostname = 0;
    // No address has been chosen yet. The scheme is then the configured type's own: connection 0 has the relay's scheme
    // even if there is no relay.
    bool isFirst = false;

    static AddressPosition first(ConnectionType type);
    AddressPosition next() const;
};

// The address at the position; depends on nothing else.
ServerAddress addressAt(const Configuration& configuration, AddressPosition position);

// The position in use, which only moves forward. Safe from any thread.
class AddressChoice {
  public:
    // Begins at the first address of the configured type. The configuration must outlive the choice.
    explicit AddressChoice(GlobalVariables& configuration);

    // The address in use, and the next one, which is in use from then on. Both are computed from the configuration of
    // this moment, and set its type of connection.
    ServerAddress present() EXCLUDES(mutex_);
    ServerAddress next() EXCLUDES(mutex_);

  private:
    ServerAddress choose() REQUIRES(mutex_);

    GlobalVariables& configuration_;
    Mutex mutex_{LockRank::choice};
    AddressPosition position_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
