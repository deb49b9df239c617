#include "support/CountingSession.h"

#include "forwarding/TransportEngine.h"
#include "foundation/Json.h"

namespace sentrova::testing {

void CountingSession::Account::setAway(bool away) {
    MutexLock lock(mutex_);
    away_ = away;
}

std::map<std::int64_t, int> CountingSession::Account::arrivals() {
    MutexLock lock(mutex_);
    return arrivals_;
}

std::size_t CountingSession::Account::different() {
    MutexLock lock(mutex_);
    return arrivals_.size();
}

bool CountingSession::Account::accept(std::string_view body) {
    const auto parsed = Json::parse(body);
    const auto* const events = parsed ? parsed->array() : nullptr;
    MutexLock lock(mutex_);
    if (away_) {
        return false;
    }
    for (std::size_t i = 0; events && i < events->size(); ++i) {
        ++arrivals_[(*(*events)[i].dictionary())["subject_pid"].integerValue()];
    }
    return true;
}

std::shared_ptr<CountingSession::Account> CountingSession::install() {
    auto account = std::make_shared<Account>();
    TransportEngine::setSessionFactory(
        [account](const auto& /*delegate*/) { return std::make_unique<CountingSession>(account); });
    return account;
}

void CountingSession::uploadTask(const UrlRequest& /*request*/, std::string body, Completion completionHandler) {
    delegateQueue_.async([account = account_, body = std::move(body), completion = std::move(completionHandler)] {
        if (account->accept(body)) {
            completion(Data{'{', '}'}, UrlResponse{200}, std::nullopt);
        } else {
            completion(std::nullopt, std::nullopt, urlError(UrlErrorCode::cannotConnectToHost));
        }
    });
}

}  // namespace sentrova::testing
