// The UrlSession for real servers, with libcurl's multi interface.

#pragma once

#include "foundation/net/UrlSession.h"
#include "platform/curl/HostAddresses.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

namespace sentrova::platform {

// One thread serves all sockets and sleeps while there is nothing to do. Requests go directly to their server over
// HTTP/1.1, even if the environment names a proxy. Cookies are not kept. Connections are kept alive and reused. At most
// six are open per scheme, host and port; further requests wait for a free one in the order of their arrival. Callers
// must limit the number of waiting requests.
//
// A request times out if it makes no progress (connects, sends or receives anything) for its time-out, or is not
// complete after the total time. Both are measured by the clock, and begin when a connection becomes free for the
// request. An answer longer than maximumAnswer fails with dataLengthExceedsMaximum, an incomplete one with
// networkConnectionLost.
//
// Each host name is looked up on a separate thread. Neither other requests nor the destructor wait for it. All
// addresses are tried within the request's time-out, the one that answered last time first. Of several addresses in one
// family, each gets half of the remaining time.
//
// If the server has closed the kept-alive connection of a request, the request is sent once more on another connection.
// The agent cannot tell whether the server has read the request before it closed, so a server may receive a request
// twice. A second loss is reported as networkConnectionLost.
//
// TLS is always version 1.2 or later. A server with only older versions fails with secureConnectionFailed. Any server
// certificate is accepted, and no client certificate is offered. Safe from any thread.
class CurlUrlSession final : public UrlSession {
  public:
    struct Configuration {
        int maximumConnectionsPerHost = 6;
        std::size_t maximumAnswer = 16 * 1024 * 1024;
        std::chrono::seconds totalTime{900};
        // Must not use the session, which may be destroyed while the resolver runs.
        HostResolver resolver = resolveHost;
    };

    // The clock must outlive the session.
    CurlUrlSession(Clock& clock, const Configuration& configuration);
    explicit CurlUrlSession(Clock& clock) : CurlUrlSession(clock, Configuration()) {}
    // Drops the requests in flight and those that wait. Their completions are not called.
    ~CurlUrlSession() override;

    // Starts the network thread, and blocks while the system refuses it. Call it once. Requests added before wait for
    // the thread.
    void start();

    void uploadTask(const UrlRequest& request, std::string body, Completion completionHandler) override;
    void uploadShared(const UrlRequest& request, const std::shared_ptr<const std::string>& body,
                      Completion completionHandler) override;

  private:
    class Engine;
    std::unique_ptr<Engine> engine_;
};

}  // namespace sentrova::platform
