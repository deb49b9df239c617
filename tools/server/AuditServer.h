// A stand-in audit server on loopback that can be told to fail. Tests run it in their own process; the program
// audit-server wraps it.

#pragma once

#include "foundation/run/Mutex.h"
#include "server/ServerConnection.h"

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <thread>
#include <vector>

namespace sentrova::testing {

// Answers a configuration sync with a JSON text, accepts batches of events, and records its requests. Each connection
// has its own thread. Safe from any thread.
//
// A batch whose "Idempotency-Key" was accepted before is answered with 200 and not counted again. A key that comes with
// another body than before, accepted or not, is a fault of the client: the server records it and answers 422.
class AuditServer {
  public:
    // NOLINTBEGIN(readability-redundant-member-init): callers may leave out members that have an initializer
    struct Configuration {
        // 0 means any free port.
        int port = 0;
        bool https = false;
        // Used with https.
        ServerTls tls = {};
        // Returns the answer to a configuration sync if setAnswer has not been called; nothing means status 500. Called
        // from the connections' threads, one call at a time. Without the function the answer is "{}".
        std::function<std::optional<std::string>()> onSync = {};
        // Receives each accepted event as compact JSON text, one call at a time. Must not call the server.
        std::function<void(const std::string& event)> onEvent = {};
    };

    using Headers = std::vector<std::pair<std::string, std::string>>;

    struct Request {
        std::string method;
        std::string path;
        Headers headers;
        std::string body;
        // The number of the connection, counted from 1.
        int connection = 0;
    };

    // How the next requests fail. A request meets the first failure with a matching path.
    struct Failure {
        enum class Kind {
            status,     // answers with status, headers and body
            noAnswer,   // never answers; waits until the client closes the connection
            hold,       // waits for release(), then answers normally
            drop,       // closes the connection without an answer
            reset,      // the same, with a reset
            halfClose,  // the same, but only in the direction of the answer
            raw,        // sends `body` as the raw answer, headers included; then closes the connection
            endless,    // sends a body without end
        };
        Kind kind = Kind::status;
        // A prefix of the matching paths; empty matches all.
        std::string path = {};
        int status = 500;
        // Whether the batch counts as accepted, whatever the client learns of it.
        bool accepts = false;
        // For raw: the pause between the answer's bytes; 0 sends all at once.
        std::chrono::milliseconds pace = {};
        // How many requests fail; -1 means all until reset().
        int count = 1;
        // How many requests succeed first.
        int after = 0;
        Headers headers = {};
        std::string body = {};
    };
    // NOLINTEND(readability-redundant-member-init)

    static constexpr const char* kSyncPath = "/api/agent/configuration/syncmacagentconfiguration";
    static constexpr const char* kEventsPath = "/api/agent/tabs/agentData";

    // Listens when the constructor returns. Throws std::runtime_error if the port is not available.
    explicit AuditServer(const Configuration& configuration);
    AuditServer() : AuditServer(Configuration()) {}
    AuditServer(const AuditServer&) = delete;
    AuditServer& operator=(const AuditServer&) = delete;
    // Closes all connections, even during a request.
    ~AuditServer();

    int port() const { return listener_.port(); }
    // Scheme, host and port, without a final slash.
    std::string url() const;

    void setAnswer(std::string json) EXCLUDES(mutex_);
    void fail(Failure failure) EXCLUDES(mutex_);
    // Answers the held requests that have arrived so far.
    void release() EXCLUDES(mutex_);
    // Ends the failures, and answers the held requests.
    void clearFailures() EXCLUDES(mutex_);
    // Clears failures, requests, events, keys and the answer; releases held requests.
    void reset() EXCLUDES(mutex_);

    // In order of arrival.
    std::vector<Request> requests() const EXCLUDES(mutex_);
    // The events of all accepted batches, each as compact JSON text.
    std::vector<std::string> events() const EXCLUDES(mutex_);
    // The key of each accepted batch, in the order in which the batches were accepted. Empty for a batch without a key.
    std::vector<std::string> keys() const EXCLUDES(mutex_);
    // The keys that came with two different bodies, one entry per request.
    std::vector<std::string> keyFaults() const EXCLUDES(mutex_);
    // The highest number of requests in progress at one time.
    int mostAtOnce() const EXCLUDES(mutex_);

    // Wait until that many have arrived since the last reset. Return false after a minute.
    [[nodiscard]] bool waitForRequests(std::size_t count) const EXCLUDES(mutex_);
    [[nodiscard]] bool waitForEvents(std::size_t count) const EXCLUDES(mutex_);

  private:
    struct Arrival {
        std::shared_ptr<Request> request;
        // The number of releases before its arrival. The next release answers it.
        int releases;
    };

    // What is known of a key.
    struct Keyed {
        std::shared_ptr<Request> first;
        bool isAccepted = false;
    };

    void acceptAll();
    void serve(const std::shared_ptr<ServerConnection>& connection, int number) EXCLUDES(mutex_);
    // Both return whether the connection continues.
    bool handle(const Arrival& arrival, ServerConnection& connection) EXCLUDES(mutex_);
    bool answer(const Request& request, ServerConnection& connection) EXCLUDES(mutex_);
    bool send(ServerConnection& connection, int status, const Headers& headers, const std::string& body)
        EXCLUDES(mutex_);

    std::optional<Failure> failureFor(const std::string& path) EXCLUDES(mutex_);
    std::optional<std::string> syncAnswer() EXCLUDES(mutex_);
    // Returns the status for the batch.
    int accept(const Request& request) EXCLUDES(mutex_);
    bool awaitRelease(const Arrival& arrival) EXCLUDES(mutex_);
    // Marks the request as finished, before the client can learn of it.
    void finish() EXCLUDES(mutex_);

    const Configuration configuration_;
    const TlsContext tls_;
    const Listener listener_;

    mutable Mutex mutex_;
    mutable Condition changed_;
    std::deque<Failure> failures_ GUARDED_BY(mutex_);
    std::vector<std::shared_ptr<Request>> requests_ GUARDED_BY(mutex_);
    std::vector<std::string> events_ GUARDED_BY(mutex_);
    std::vector<std::string> keys_ GUARDED_BY(mutex_);
    std::vector<std::string> keyFaults_ GUARDED_BY(mutex_);
    std::map<std::string, Keyed> keyed_ GUARDED_BY(mutex_);
    std::optional<std::string> answer_ GUARDED_BY(mutex_);
    int underWay_ GUARDED_BY(mutex_) = 0;
    int mostAtOnce_ GUARDED_BY(mutex_) = 0;
    int releases_ GUARDED_BY(mutex_) = 0;
    bool stopped_ GUARDED_BY(mutex_) = false;

    std::thread thread_;
};

}  // namespace sentrova::testing
