// Sends one message to the audit server, and chooses the server's address.
//
// Engines are short-lived, share one Transport, and each sends to the address that it was given. Safe from any thread,
// but one engine is for one thread at a time.

#pragma once

#include "forwarding/MsgConfiguration.h"
#include "forwarding/Transport.h"
#include "foundation/net/UrlSession.h"

#include <array>
#include <memory>
#include <optional>
#include <string>

namespace sentrova {

class TransportEngine {
  public:
    // With the current address.
    TransportEngine();

    // Whether the server is believed reachable; true at first, so that a delivery is attempted.
    static bool isConnected();
    // A change is recorded with the connection in use in `myconfigurations.plist`.
    static void setIsConnected(bool flag);

    // Moves on to the next address, for this engine and all later ones.
    void tryOtherURL();

    // Sends the body, as ASCII, without waiting. True when the request is with the session: the completion will run
    // once, on the session's delegate queue. False, with a line in the log, when nothing was sent: the completion never
    // runs.
    [[nodiscard]] bool sendMessageToServer(MessageType type, std::string andParameters,
                                           UrlSession::Completion andCompletionHandler);
    // The same for a body that the caller keeps as well; it is not copied when it is ASCII already.
    [[nodiscard]] bool sendMessageToServer(MessageType type, const std::shared_ptr<const std::string>& andParameters,
                                           UrlSession::Completion andCompletionHandler);

    // What a failed request tried and what came of it, for the log: "https://audit:8443: Could not connect to the
    // server.", "https://audit:8443: answered with HTTP status 503". To be asked before tryOtherURL.
    std::string describeFailure(const std::optional<UrlResponse>& response, const std::optional<Error>& error) const;

    // scheme://host:port, and the message's path once one was sent.
    const std::string& baseURL() const { return baseURL_; }
    // The parts that baseURL was joined from.
    const std::array<std::string, 6>& urlComp() const { return urlComp_; }

  private:
    void compose(const ServerAddress& address);

    Transport& transport_;
    std::string baseURL_;
    std::array<std::string, 6> urlComp_;
};

}  // namespace sentrova
