#include "forwarding/ServerGate.h"

#include <algorithm>

namespace sentrova {

std::optional<ServerGate::Pass> ServerGate::enter(Clock::Monotonic now) {
    const MutexLock lock(mutex_);
    allHeldUntil_.reset();
    if (isDown_ && (isProbed_ || now < waitEnds_)) {
        return std::nullopt;
    }
    auto address = freeAddressLocked(now);
    if (!address) {
        return std::nullopt;
    }
    isProbed_ = isDown_;
    return Pass{*std::move(address), failures_};
}

// Asks again at each call which addresses there are, because the configuration may have changed.
std::optional<ServerAddress> ServerGate::freeAddressLocked(Clock::Monotonic now) {
    constexpr int kAddresses = AddressPosition::kConnections * AddressPosition::kHostForms;
    auto address = addresses_.current();
    for (int i = 0; i < kAddresses; ++i) {
        const auto hold = holds_.find({address.scheme, address.host, address.port});
        if (hold == holds_.end() || hold->second <= now) {
            return address;
        }
        allHeldUntil_ = std::min(allHeldUntil_.value_or(hold->second), hold->second);
        address = addresses_.next();
    }
    return std::nullopt;
}

std::optional<Clock::Monotonic> ServerGate::opensAt() {
    const MutexLock lock(mutex_);
    if (isProbed_) {
        return std::nullopt;
    }
    return allHeldUntil_.value_or(waitEnds_);
}

bool ServerGate::failed(const Pass& pass, std::optional<std::chrono::seconds> retryAfter, Clock::Monotonic now) {
    const MutexLock lock(mutex_);
    const bool counts = pass.failures == failures_;
    if (counts) {
        ++failures_;
        isDown_ = true;
        isProbed_ = false;
        waitEnds_ = now + backoff_.next();
    }
    if (retryAfter) {
        std::erase_if(holds_, [now](const auto& hold) { return hold.second <= now; });
        auto& end = holds_[{pass.address.scheme, pass.address.host, pass.address.port}];
        end = std::max(end, now + std::min<std::chrono::seconds>(*retryAfter, kLongestHold));
    }
    return counts;
}

// Since the latest failure only the probe has begun, so a delivery that knows of that failure is the probe.
void ServerGate::finish(const Pass& pass, bool remainsDown) {
    const MutexLock lock(mutex_);
    if (pass.failures == failures_) {
        isProbed_ = false;
        isDown_ = isDown_ && remainsDown;
    }
}

void ServerGate::succeeded() {
    const MutexLock lock(mutex_);
    isDown_ = false;
    isProbed_ = false;
    backoff_.reset();
}

}  // namespace sentrova
