// A stand-in audit server on loopback, which can be told to fail. Tests run it within their own process; the program
// audit-server is little more than one of these.

#pragma once

#include "support/ServerTls.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sentrova::testing {

// Answers a configuration sync with a JSON text, accepts batches of events, and remembers what it was asked. The same
// can be asked and told over HTTP:
//
//   GET /control/requests    all requests, as a JSON array of objects: method, path, headers, body, connection, status
//   GET /control/events      all accepted events, as one JSON array
//   POST /control/answer     the body becomes the answer to a configuration sync
//   POST /control/fail       one failure or an array of them, as JSON objects with the members of Failure; kind is one
//   of
//                            status, redirect, delay, noanswer, hold, drop, reset, halfclose, cut, cuthead, surplus,
//                            slow, endless
//   POST /control/release    see release()
//   POST /control/reset      see reset()
//
// Requests to these paths are not remembered. Safe from any thread.
class AuditServer {
  public:
    struct Configuration {
        // 0: any port that is free.
        int port = 0;
        bool https = false;
        // Of a server that speaks https.
        ServerTls tls = {};
        // The answer to a configuration sync, read anew each time; empty: "{}".
        std::string answerFile = {};
        // Gets each accepted event as compact JSON text, one at a time; not to call the server.
        std::function<void(const std::string& event)> onEvent = {};
    };

    struct Request {
        std::string method;
        std::string path;
        std::vector<std::pair<std::string, std::string>> headers;
        std::string body;
        // Counts the server's connections from 1.
        int connection = 0;
        // 0 while there is no answer, and for good where the connection was dropped instead.
        int status = 0;
    };

    // What becomes of the next requests. A request takes the first failure whose path it has; a batch that meets one is
    // accepted only where the kind says so.
    struct Failure {
        enum class Kind {
            status,     // is answered with the status, headers and body
            delay,      // is answered as ever, after so many seconds
            noAnswer,   // is held until the client closes the connection
            hold,       // is held until release(), then answered as ever
            drop,       // has its connection closed without a byte of answer
            reset,      // the same, by a reset
            halfClose,  // the same in the direction of the answer only
            cut,        // gets half of the body that its "Content-Length" announces
            cutHead,    // gets a status of 200 and half a header
            surplus,    // is accepted, and gets more of a body than its "Content-Length" announces
            slow,       // is accepted, and gets its body a byte at a time, so many seconds apart
            endless,    // gets a body without end
        };
        Kind kind = Kind::status;
        // What the paths begin with; empty: any path.
        std::string path = {};
        int status = 500;
        double seconds = 1;
        // How many requests meet it; -1: all until reset().
        int count = 1;
        // How many come through before that.
        int after = 0;
        std::vector<std::pair<std::string, std::string>> headers = {};
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

    int port() const;
    // Scheme, host and port, without a slash at the end.
    std::string url() const;

    void setAnswer(std::string json);
    void fail(Failure failure);
    // Answers the requests held that have arrived.
    void release();
    // Forgets failures, requests, events and the answer that was set; releases what is held.
    void reset();

    // In the order in which they arrived.
    std::vector<Request> requests() const;
    // The events of all batches answered 200, each as compact JSON text.
    std::vector<std::string> events() const;
    // The most requests that have been under way at one time.
    int mostAtOnce() const;

    // Wait until that many have arrived since the last reset; false when they have not within the time.
    [[nodiscard]] bool waitForRequests(std::size_t count, std::chrono::seconds time = std::chrono::seconds(60)) const;
    [[nodiscard]] bool waitForEvents(std::size_t count, std::chrono::seconds time = std::chrono::seconds(60)) const;

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace sentrova::testing
