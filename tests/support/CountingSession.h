// A session without a network whose server keeps nothing but account of the events.

#pragma once

#include "forwarding/TransportEngine.h"
#include "foundation/DispatchQueue.h"
#include "foundation/Json.h"
#include "foundation/Mutex.h"
#include "foundation/UrlSession.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace sentrova::testing {

// Answers every request with 200, or with an error while the server is away.
class CountingSession final : public UrlSession {
  public:
    // Outlives the sessions of several starts. Safe from any thread.
    class Account {
      public:
        void setAway(bool away) EXCLUDES(mutex_) {
            MutexLock lock(mutex_);
            away_ = away;
        }
        // How often each event came, by process number.
        std::map<std::int64_t, int> arrivals() EXCLUDES(mutex_) {
            MutexLock lock(mutex_);
            return arrivals_;
        }
        std::size_t different() EXCLUDES(mutex_) { return arrivals().size(); }

      private:
        friend class CountingSession;
        bool accept(std::string_view body) EXCLUDES(mutex_) {
            const auto parsed = Json::parse(body);
            MutexLock lock(mutex_);
            if (!away_ && parsed && parsed->array()) {
                for (const auto& event : *parsed->array()) {
                    ++arrivals_[(*event.dictionary())["subject_pid"].integerValue()];
                }
            }
            return !away_;
        }

        Mutex mutex_;
        bool away_ GUARDED_BY(mutex_) = false;
        std::map<std::int64_t, int> arrivals_ GUARDED_BY(mutex_);
    };

    explicit CountingSession(std::shared_ptr<Account> account) : account_(std::move(account)) {}

    // Makes it the session of the transport's next first engine.
    static std::shared_ptr<Account> install() {
        auto account = std::make_shared<Account>();
        TransportEngine::setSessionFactory(
            [account](const auto& /*delegate*/) { return std::make_unique<CountingSession>(account); });
        return account;
    }

    void uploadTask(const UrlRequest& /*request*/, std::string body, Completion completionHandler) override {
        delegateQueue_.async([account = account_, body = std::move(body), completion = std::move(completionHandler)] {
            if (account->accept(body)) {
                completion(Data{'{', '}'}, UrlResponse{200}, std::nullopt);
            } else {
                completion(std::nullopt, std::nullopt, urlError(UrlErrorCode::cannotConnectToHost));
            }
        });
    }

  private:
    const std::shared_ptr<Account> account_;
    DispatchQueue delegateQueue_{"CountingSession"};
};

}  // namespace sentrova::testing
