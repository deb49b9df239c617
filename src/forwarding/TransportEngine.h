// Sends one message to the audit server, and selects the server's address.
//
// Engines are short-lived and share one Transport. Each sends to the address that it has selected. Different threads
// may use different engines; one engine is not thread-safe.

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
    // Selects the address in use.
    TransportEngine();
    // Takes the given address.
    explicit TransportEngine(const ServerAddress& address);

    // Whether the server is believed to be reachable. Initially true, so that a first delivery is attempted.
    static bool isConnected();
    // A change of the flag stores the connection in use in `myconfigurations.plist`.
    static void setIsConnected(bool flag);

    // Moves to the next address, for this engine and all later ones.
    void tryOtherURL();

    // Sends the body, converted to ASCII, without waiting for the answer. If it returns true, the completion runs once
    // on the session's delegate queue. If it returns false, nothing was sent, the log has a line, and the completion
    // never runs.
    [[nodiscard]] bool sendMessageToServer(MessageType type, std::string andParameters,
                                           UrlSession::Completion andCompletionHandler);
    // The same for a shared body, which is copied only if it is not ASCII. If a key is given, the request carries it in
    // the header "Idempotency-Key".
    [[nodiscard]] bool sendMessageToServer(MessageType type, const std::shared_ptr<const std::string>& andParameters,
                                           UrlSession::Completion andCompletionHandler,
                                           const std::string& idempotencyKey = {});

    // The address and the outcome of a failed request, for the log: "https://audit:8443: Could not connect to the
    // server.", "https://audit:8443: answered with HTTP status 503". Call it before tryOtherURL, which changes the
    // address.
    std::string describeFailure(const std::optional<UrlResponse>& response, const std::optional<Error>& error) const;

    // scheme://host:port, followed by the message's path after a request.
    const std::string& baseURL() const { return baseURL_; }
    // The parts that baseURL is composed of.
    const std::array<std::string, 6>& urlComp() const { return urlComp_; }

  private:
    // scheme://host:port.
    std::string address() const;
    void compose(const ServerAddress& address);

    Transport& transport_;
    std::string baseURL_;
    std::array<std::string, 6> urlComp_;
};

}  // namespace sentrova
