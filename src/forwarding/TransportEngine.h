// Sends one message to the audit server, and chooses the server's address.
//
// An address is a connection (0 the relay, 1 the agent connector, 2 the product connector: port and scheme) together
// with a form of the host's name (0 the relay's or else the fully qualified name, 1 the fully qualified name, 2 the IP
// address, 3 the short name); the two are chosen independently. The choice, the session and whether the server is
// believed reachable belong to the process; engines are short-lived. Safe from any thread, but one engine is for one
// thread at a time.

#pragma once

#include "forwarding/MsgConfiguration.h"
#include "foundation/UrlSession.h"

#include <array>
#include <functional>
#include <memory>
#include <string>

namespace sentrova {

class TransportEngine {
  public:
    using SessionFactory = std::function<std::unique_ptr<UrlSession>(std::shared_ptr<UrlSessionDelegate>)>;

    // With the current address. The first engine of the process takes the first address from the configuration and
    // makes the session.
    TransportEngine();

    // Whether the server is believed reachable; true at first, so that a delivery is attempted.
    static bool isConnected();
    // A change is recorded with the connection in use in `myconfigurations.plist`.
    static void setIsConnected(bool flag);

    // Moves on to the next address, for this engine and all later ones.
    void tryOtherURL();

    // Sends the body, as ASCII, without waiting. The completion runs on the session's delegate queue; it is not called
    // for a message type that there is not.
    void sendMessageToServer(MessageType type, std::string andParameters, UrlSession::Completion andCompletionHandler);
    // The same for a body that the caller keeps as well; it is not copied when it is ASCII already.
    void sendMessageToServer(MessageType type, const std::shared_ptr<const std::string>& andParameters,
                             UrlSession::Completion andCompletionHandler);

    // scheme://host:port, and the message's path once one was sent.
    const std::string& baseURL() const { return baseURL_; }
    // The parts that baseURL was joined from.
    const std::array<std::string, 6>& urlComp() const { return urlComp_; }

    // How the process's session is made, for tests; null for the real one. Takes effect on the next first engine.
    static void setSessionFactory(SessionFactory factory);

  private:
    void compose(const std::string& scheme, const std::string& name, std::int64_t port);

    std::string baseURL_;
    std::array<std::string, 6> urlComp_;
};

}  // namespace sentrova
