// The session that speaks to real servers, over libcurl's multi interface.

#pragma once

#include "foundation/UrlSession.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

namespace sentrova {

// One thread drives all sockets. Connections are kept alive and reused, with at most six to a host; further requests
// wait for one of them in the order in which they came. An answer longer than maximumAnswer fails with
// dataLengthExceedsMaximum. A request that makes no progress for its time-out fails with timedOut, and so does one that
// is not complete after the total time; both are measured by Clock::shared().
class CurlUrlSession final : public UrlSession {
  public:
    struct Configuration {
        int maximumConnectionsPerHost = 6;
        std::size_t maximumAnswer = 16 * 1024 * 1024;
        std::chrono::seconds totalTime{900};
    };

    // The delegate answers the servers' challenges for as long as the session lives; null answers none.
    CurlUrlSession(std::shared_ptr<UrlSessionDelegate> delegate, const Configuration& configuration);
    explicit CurlUrlSession(std::shared_ptr<UrlSessionDelegate> delegate)
        : CurlUrlSession(std::move(delegate), Configuration()) {}
    // Abandons the requests under way; their completions are not called.
    ~CurlUrlSession() override;

    void uploadTask(const UrlRequest& request, std::string body, Completion completionHandler) override;

  private:
    class Engine;
    std::unique_ptr<Engine> engine_;
};

}  // namespace sentrova
