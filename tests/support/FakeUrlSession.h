// A session without a network: it keeps the requests and gives the answers that a test tells it to.

#pragma once

#include "foundation/DispatchQueue.h"
#include "foundation/Mutex.h"
#include "foundation/UrlSession.h"

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace sentrova::testing {

// Completions run one after another on a queue of the session's own, as those of the real one do. Safe from any thread.
class FakeUrlSession final : public UrlSession {
  public:
    struct Sent {
        UrlRequest request;
        std::string body;
    };
    struct Answer {
        int status = 200;
        std::string body = "{}";
        // An error instead of the answer.
        std::optional<Error> error = {};
    };

    static Answer failure(UrlErrorCode code, const std::string& description) {
        return {0, "", Error{kUrlErrorDomain, static_cast<std::int64_t>(code), description}};
    }

    void uploadTask(const UrlRequest& request, std::string body, Completion completionHandler) override
        EXCLUDES(mutex_);

    // Answers every request from now on, when it comes, with what the function says; requests for which it has no
    // answer wait for `answer`.
    using Responder = std::function<std::optional<Answer>(const Sent&)>;
    void respondWith(Responder responder) EXCLUDES(mutex_);

    // Answers the request of this number (from 0), which must have come and wait. Does not wait for the completion.
    void answer(std::size_t number, const Answer& answer) EXCLUDES(mutex_);

    // All requests, in their order.
    std::vector<Sent> sent() EXCLUDES(mutex_);
    // False when there are not that many within a minute.
    [[nodiscard]] bool waitForRequests(std::size_t count) EXCLUDES(mutex_);

    // Waits until the completions that have been started are over.
    void settle();

    // Drops the completions of unanswered requests; the requests stay on record.
    void forget() EXCLUDES(mutex_);

    // As after the constructor: no requests on record, no responder.
    void startAnew() EXCLUDES(mutex_);

  private:
    void complete(Completion completion, const Answer& answer);

    Mutex mutex_{LockRank::owner};
    Condition arrived_;
    std::vector<Sent> sent_ GUARDED_BY(mutex_);
    std::vector<Completion> waiting_ GUARDED_BY(mutex_);
    Responder responder_ GUARDED_BY(mutex_);
    DispatchQueue delegateQueue_{"FakeUrlSession"};
};

}  // namespace sentrova::testing
