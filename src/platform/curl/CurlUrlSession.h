// The session that speaks to real servers, over libcurl's multi interface.

#pragma once

#include "foundation/net/UrlSession.h"
#include "platform/curl/HostAddresses.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

namespace sentrova::platform {

// One thread drives all sockets and sleeps while there is nothing to do. Requests go straight to their server over
// HTTP/1.1, whatever the environment says about proxies; cookies are not kept. Connections are kept alive and reused,
// with at most six to a scheme, host and port; further requests wait for one of them in the order in which they came.
// How many wait is the callers' business.
//
// A request times out when its exchange has made no progress (connected, sent or received anything) for its time-out,
// or is not complete after the total time; both are measured by the clock, from the moment at which the request's turn
// has come. An answer longer than maximumAnswer fails with dataLengthExceedsMaximum, one that is cut short with
// networkConnectionLost.
//
// A host name is looked up on a thread of its own, which neither other requests nor the end of the session wait for.
// All its addresses are tried within the request's time-out, the one that answered last time first: of several
// addresses of one family each gets half of the time that is left.
//
// A request that went out on a kept-alive connection which the server had closed meanwhile is sent once more on
// another, for there is no telling that case from a server that read it and closed. So a server may see a request
// twice; a second loss is reported.
//
// TLS is of version 1.2 or later, whatever the host's own settings allow; an older server fails with
// secureConnectionFailed. Any certificate of a server is accepted, and none is offered.
class CurlUrlSession final : public UrlSession {
  public:
    struct Configuration {
        int maximumConnectionsPerHost = 6;
        std::size_t maximumAnswer = 16 * 1024 * 1024;
        std::chrono::seconds totalTime{900};
        // Must work without the session, which may have ended meanwhile.
        HostResolver resolver = resolveHost;
    };

    // The clock must outlive the session.
    CurlUrlSession(Clock& clock, const Configuration& configuration);
    explicit CurlUrlSession(Clock& clock) : CurlUrlSession(clock, Configuration()) {}
    // Abandons the requests in flight and those that wait; their completions are not called.
    ~CurlUrlSession() override;

    // Starts the network thread, and waits for it while the system grants none. Requests that came before wait for it.
    void start();

    void uploadTask(const UrlRequest& request, std::string body, Completion completionHandler) override;
    void uploadShared(const UrlRequest& request, const std::shared_ptr<const std::string>& body,
                      Completion completionHandler) override;

  private:
    class Engine;
    std::unique_ptr<Engine> engine_;
};

}  // namespace sentrova::platform
