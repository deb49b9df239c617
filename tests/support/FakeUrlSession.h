// A session without a network. It records the requests and gives the answers that the test chooses.

#pragma once

#include "foundation/net/UrlSession.h"
#include "foundation/run/DispatchQueue.h"
#include "foundation/run/Mutex.h"

#include <chrono>
#include <functional>

namespace sentrova::testing {

// Completions run one after another on the session's own queue, as in the real session. Safe from any thread.
class FakeUrlSession final : public UrlSession {
  public:
    // The clock must outlive the session.
    explicit FakeUrlSession(Clock& clock) : delegateQueue_("FakeUrlSession", clock) {}

    struct Sent {
        UrlRequest request;
        std::string body;
    };
    struct Answer {
        int status = 200;
        std::string body = "{}";
        // If set, the completion receives this error and no answer.
        std::optional<Error> error = {};
        std::optional<std::chrono::seconds> retryAfter = {};
    };

    static Answer failure(UrlErrorCode code, const std::string& description) {
        return {0, "", Error{kUrlErrorDomain, static_cast<std::int64_t>(code), description}};
    }

    void uploadTask(const UrlRequest& request, std::string body, Completion completionHandler) override
        EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        sent_.push_back({request, std::move(body)});
        const auto answer = responder_ ? responder_(sent_.back()) : std::nullopt;
        if (answer && !keepsRequests_) {
            sent_.pop_back();
        } else {
            waiting_.push_back(answer ? nullptr : completionHandler);
        }
        arrived_.notifyAll();
        lock.unlock();
        if (answer) {
            complete(std::move(completionHandler), *answer);
        }
    }

    // From now on, answers each new request with the responder's result. Without a result, the request waits for
    // `answer`. Answered requests are recorded only if `keepsRequests` is true.
    using Responder = std::function<std::optional<Answer>(const Sent&)>;
    void respondWith(Responder responder, bool keepsRequests = true) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        responder_ = std::move(responder);
        keepsRequests_ = keepsRequests;
    }

    // Answers the waiting request with this number (from 0). Does not wait for the completion.
    void answer(std::size_t number, const Answer& answer) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        auto completion = std::exchange(waiting_.at(number), nullptr);
        lock.unlock();
        if (completion) {
            complete(std::move(completion), answer);
        }
    }

    // All recorded requests, in their order.
    std::vector<Sent> sent() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return sent_;
    }
    // Returns false if fewer requests are recorded after a minute.
    [[nodiscard]] bool waitForRequests(std::size_t count) EXCLUDES(mutex_) {
        const auto giveUp = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        MutexLock lock(mutex_);
        while (sent_.size() < count && std::chrono::steady_clock::now() < giveUp) {
            arrived_.waitUntil(lock, giveUp);
        }
        return sent_.size() >= count;
    }

    // Waits until all queued completions have run.
    void settle() {
        delegateQueue_.sync([] {});
    }

    // Drops the completions of unanswered requests and keeps the requests.
    void forget() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        std::vector<Completion> dropped(waiting_.size());
        std::swap(dropped, waiting_);
        lock.unlock();
        dropped.clear();
        settle();
    }

    // Removes all recorded requests and the responder.
    void startAnew() EXCLUDES(mutex_) {
        forget();
        respondWith(nullptr);
        MutexLock lock(mutex_);
        sent_.clear();
        waiting_.clear();
    }

  private:
    void complete(Completion completion, const Answer& answer) {
        delegateQueue_.async([completion = std::move(completion), answer] {
            if (answer.error) {
                completion(std::nullopt, std::nullopt, answer.error);
            } else {
                completion(Data(answer.body.begin(), answer.body.end()), UrlResponse{answer.status, answer.retryAfter},
                           std::nullopt);
            }
        });
    }

    Mutex mutex_{LockRank::owner};
    Condition arrived_;
    std::vector<Sent> sent_ GUARDED_BY(mutex_);
    std::vector<Completion> waiting_ GUARDED_BY(mutex_);
    Responder responder_ GUARDED_BY(mutex_);
    bool keepsRequests_ GUARDED_BY(mutex_) = true;
    DispatchQueue delegateQueue_;
};

}  // namespace sentrova::testing
