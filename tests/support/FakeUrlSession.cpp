#include "support/FakeUrlSession.h"

#include <chrono>

namespace sentrova::testing {

void FakeUrlSession::uploadTask(const UrlRequest& request, std::string body, Completion completionHandler) {
    MutexLock lock(mutex_);
    sent_.push_back({request, std::move(body)});
    const auto answer = responder_ ? responder_(sent_.back()) : std::nullopt;
    waiting_.push_back(answer ? nullptr : completionHandler);
    arrived_.notifyAll();
    lock.unlock();
    if (answer) {
        complete(std::move(completionHandler), *answer);
    }
}

void FakeUrlSession::respondWith(Responder responder) {
    MutexLock lock(mutex_);
    responder_ = std::move(responder);
}

void FakeUrlSession::answer(std::size_t number, const Answer& answer) {
    Completion completion;
    {
        MutexLock lock(mutex_);
        completion = std::exchange(waiting_.at(number), nullptr);
    }
    if (completion) {
        complete(std::move(completion), answer);
    }
}

std::vector<FakeUrlSession::Sent> FakeUrlSession::sent() {
    MutexLock lock(mutex_);
    return sent_;
}

bool FakeUrlSession::waitForRequests(std::size_t count) {
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    MutexLock lock(mutex_);
    while (sent_.size() < count) {
        if (std::chrono::steady_clock::now() >= giveUp) {
            return false;
        }
        arrived_.waitUntil(lock, giveUp);
    }
    return true;
}

void FakeUrlSession::settle() {
    delegateQueue_.sync([] {});
}

void FakeUrlSession::forget() {
    std::vector<Completion> dropped;
    MutexLock lock(mutex_);
    dropped.resize(waiting_.size());
    std::swap(dropped, waiting_);
    lock.unlock();
    settle();
}

void FakeUrlSession::startAnew() {
    forget();
    respondWith(nullptr);
    MutexLock lock(mutex_);
    sent_.clear();
    waiting_.clear();
}

void FakeUrlSession::complete(Completion completion, const Answer& answer) {
    delegateQueue_.async([completion = std::move(completion), answer] {
        if (answer.error) {
            completion(std::nullopt, std::nullopt, answer.error);
        } else {
            completion(Data(answer.body.begin(), answer.body.end()), UrlResponse{answer.status}, std::nullopt);
        }
    });
}

}  // namespace sentrova::testing
