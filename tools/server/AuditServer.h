// A stand-in audit server on loopback, which can be told to fail. Tests run it within their own process; the program
// audit-server is little more than one of these.

#pragma once

#include "foundation/run/Mutex.h"
#include "server/ServerConnection.h"

#include <deque>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

namespace sentrova::testing {

// Answers a configuration sync with a JSON text, accepts batches of events, and remembers what it was asked. Every
// connection has a thread of its own. Safe from any thread.
class AuditServer {
  public:
    struct Configuration {
        // 0: any port that is free.
        int port = 0;
        bool https = false;
        // Of a server that speaks https.
        ServerTls tls = {};
        // Gives the answer to a configuration sync for which none has been set; nothing for a status of 500. Called
        // from the connections' threads, one at a time. Without the function the answer is "{}".
        std::function<std::optional<std::string>()> onSync = {};
        // Gets each accepted event as compact JSON text, one at a time; not to call the server.
        std::function<void(const std::string& event)> onEvent = {};
    };

    using Headers = std::vector<std::pair<std::string, std::string>>;

    struct Request {
        std::string method;
        std::string path;
        Headers headers;
        std::string body;
        // Counts the server's connections from 1.
        int connection = 0;
    };

    // What becomes of the next requests. A request takes the first failure whose path it has.
    struct Failure {
        enum class Kind {
            status,     // is answered with the status, headers and body
            noAnswer,   // is held until the client closes the connection
            hold,       // is held until release(), then answered as ever
            drop,       // has its connection closed without a byte of answer
            reset,      // the same, by a reset
            halfClose,  // the same in the direction of the answer only
            raw,        // gets the body alone, which is to be a whole answer or a damaged one; then the connection ends
            endless,    // gets a body without end
        };
        Kind kind = Kind::status;
        // What the paths begin with; empty: any path.
        std::string path = {};
        int status = 500;
        // Whether a batch that gets a raw answer is accepted, and how far apart the answer's bytes are; 0: all at once.
        bool accepts = false;
        std::chrono::milliseconds pace = {};
        // How many requests meet it; -1: all until reset().
        int count = 1;
        // How many come through before that.
        int after = 0;
        Headers headers = {};
        std::string body = {};
    };

    static constexpr const char* kSyncPath = "/api/agent/configuration/syncmacagentconfiguration";
    static constexpr const char* kEventsPath = "/api/agent/tabs/agentData";

    // Listens when it returns. Throws std::runtime_error when the port cannot be had.
    explicit AuditServer(const Configuration& configuration);
    AuditServer() : AuditServer(Configuration()) {}
    AuditServer(const AuditServer&) = delete;
    AuditServer& operator=(const AuditServer&) = delete;
    // Closes all connections, also those with a request under way.
    ~AuditServer();

    int port() const { return listener_.port(); }
    // Scheme, host and port, without a slash at the end.
    std::string url() const;

    void setAnswer(std::string json) EXCLUDES(mutex_);
    void fail(Failure failure) EXCLUDES(mutex_);
    // Answers the requests held that have arrived.
    void release() EXCLUDES(mutex_);
    // Forgets failures, requests, events and the answer that was set; releases what is held.
    void reset() EXCLUDES(mutex_);

    // In the order in which they arrived.
    std::vector<Request> requests() const EXCLUDES(mutex_);
    // The events of all batches answered 200, each as compact JSON text.
    std::vector<std::string> events() const EXCLUDES(mutex_);
    // The most requests that have been under way at one time.
    int mostAtOnce() const EXCLUDES(mutex_);

    // Wait until that many have arrived since the last reset; false when they have not within a minute.
    [[nodiscard]] bool waitForRequests(std::size_t count) const EXCLUDES(mutex_);
    [[nodiscard]] bool waitForEvents(std::size_t count) const EXCLUDES(mutex_);

  private:
    struct Arrival {
        std::shared_ptr<Request> request;
        // How many releases there had been by then: the next one lets it go.
        int releases;
    };

    void acceptAll();
    void serve(std::shared_ptr<ServerConnection> connection, int number) EXCLUDES(mutex_);
    // These return whether the connection goes on.
    bool handle(const Arrival& arrival, ServerConnection& connection) EXCLUDES(mutex_);
    bool answer(const Request& request, ServerConnection& connection) EXCLUDES(mutex_);
    bool send(ServerConnection& connection, int status, const Headers& headers, const std::string& body)
        EXCLUDES(mutex_);

    std::optional<Failure> failureFor(const std::string& path) EXCLUDES(mutex_);
    std::optional<std::string> syncAnswer() EXCLUDES(mutex_);
    bool accept(const std::string& batch) EXCLUDES(mutex_);
    bool awaitRelease(const Arrival& arrival) EXCLUDES(mutex_);
    // The request is no longer under way; before the client learns of it.
    void finish() EXCLUDES(mutex_);

    const Configuration configuration_;
    const TlsContext tls_;
    const Listener listener_;

    mutable Mutex mutex_;
    mutable Condition changed_;
    std::deque<Failure> failures_ GUARDED_BY(mutex_);
    std::vector<std::shared_ptr<Request>> requests_ GUARDED_BY(mutex_);
    std::vector<std::string> events_ GUARDED_BY(mutex_);
    std::optional<std::string> answer_ GUARDED_BY(mutex_);
    int underWay_ GUARDED_BY(mutex_) = 0;
    int mostAtOnce_ GUARDED_BY(mutex_) = 0;
    int releases_ GUARDED_BY(mutex_) = 0;
    bool stopped_ GUARDED_BY(mutex_) = false;

    std::thread thread_;
};

}  // namespace sentrova::testing
