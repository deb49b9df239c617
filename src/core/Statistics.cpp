#include "core/Statistics.h"

#include <algorithm>
#include <utility>

namespace sentrova {

namespace {

void moveOn(std::optional<Statistics::Seconds>& time, std::optional<Statistics::Seconds> other) {
    if (other) {
        time = std::max(time.value_or(*other), *other);
    }
}

}  // namespace

void Statistics::addReading(const Reading& more, std::optional<Seconds> newest) {
    const MutexLock lock(mutex_);
    counts_.read.records += more.records;
    counts_.read.collected += more.collected;
    counts_.read.excluded += more.excluded;
    moveOn(counts_.lastRead, newest);
}

void Statistics::setDeviceOpen(bool isOpen) {
    const MutexLock lock(mutex_);
    counts_.isDeviceOpen = isOpen;
}

void Statistics::addDrops(std::uint64_t records) {
    const MutexLock lock(mutex_);
    counts_.drops += records;
}

void Statistics::deliveryBegan() {
    const MutexLock lock(mutex_);
    ++counts_.inFlight;
}

void Statistics::deliveryEnded() {
    const MutexLock lock(mutex_);
    --counts_.inFlight;
}

void Statistics::addDelivered(std::uint64_t events, std::optional<Seconds> newest) {
    const MutexLock lock(mutex_);
    counts_.delivered += events;
    moveOn(counts_.lastDelivered, newest);
}

void Statistics::requestSucceeded(const std::string& address, Seconds now) {
    const MutexLock lock(mutex_);
    auto& server = counts_.server;
    server.isReachable = true;
    server.hasSucceeded = true;
    server.address = address;
    server.lastContact = now;
}

void Statistics::requestFailed(std::string_view kind, std::string text, const std::string& address, bool isAnswered,
                               Seconds now) {
    const MutexLock lock(mutex_);
    ++counts_.failures[std::string(kind)];
    auto& server = counts_.server;
    server.isReachable = isAnswered;
    server.hasSucceeded = false;
    server.address = address;
    if (isAnswered) {
        server.lastContact = now;
    }
    server.lastFailure = Failure{now, std::move(text)};
}

void Statistics::continueFrom(std::optional<Seconds> lastRead, std::optional<Seconds> lastDelivered) {
    const MutexLock lock(mutex_);
    moveOn(counts_.lastRead, lastRead);
    moveOn(counts_.lastDelivered, lastDelivered);
}

Statistics::Snapshot Statistics::snapshot() {
    const MutexLock lock(mutex_);
    return counts_;
}

}  // namespace sentrova
