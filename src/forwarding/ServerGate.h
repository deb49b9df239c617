// Decides when a delivery of the durable mode may begin, and to which address.
//
// The server as a whole is up or down. While it is up, every delivery may begin. A failed delivery takes it down: for a
// wait drawn by Backoff none begins, then a single one probes, and the others follow only after a success. Deliveries
// that were in flight together and fail together count as one failure. A success of any request, also of a sync, ends
// the wait, and the backoff begins anew.
//
// An answer with `Retry-After` holds its address (scheme, host, port) back, whatever happens at the others. The
// rotation skips addresses that are held back.

#pragma once

#include "forwarding/AddressChoice.h"
#include "foundation/run/Backoff.h"
#include "foundation/run/Clock.h"
#include "foundation/run/Mutex.h"
#include "foundation/value/Cryptography.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>

namespace sentrova {

// The server is up at first. Sets no timer; callers pass in the monotonic time. Safe from any thread.
class ServerGate {
  public:
    // The longest time for which an address is held back.
    static constexpr std::chrono::hours kLongestHold{1};

    // Both arguments must outlive the object.
    ServerGate(AddressChoice& addresses, const Cryptography& cryptography)
        : addresses_(addresses), backoff_(cryptography) {}

    // The permission for one delivery. Its holder reports the outcome by one call of failed, answered or leave, unless
    // succeeded is called for it.
    struct Pass {
        ServerAddress address;
        // The number of failures of the server before this delivery began.
        std::uint64_t failures = 0;
    };

    // Returns nothing if no delivery may begin now. Moves to the next address that is not held back.
    std::optional<Pass> enter(Clock::Monotonic now) EXCLUDES(mutex_);
    // After a refused enter: when to ask again. Nothing: after the outcome of the delivery that probes.
    std::optional<Clock::Monotonic> opensAt() EXCLUDES(mutex_);

    // The delivery failed. Returns false if a delivery that began at the same time has failed before, so that this one
    // changes nothing more. `retryAfter` is the time that the answer asked for.
    bool failed(const Pass& pass, std::optional<std::chrono::seconds> retryAfter, Clock::Monotonic now)
        EXCLUDES(mutex_);
    // The server judged the batch and did not take it: the server is up, but that is no success.
    void answered(const Pass& pass) EXCLUDES(mutex_) { finish(pass, false); }
    // The delivery did not begin.
    void leave(const Pass& pass) EXCLUDES(mutex_) { finish(pass, true); }
    // Some request succeeded.
    void succeeded() EXCLUDES(mutex_);

  private:
    using Server = std::tuple<std::string, std::string, std::int64_t>;

    std::optional<ServerAddress> freeAddressLocked(Clock::Monotonic now) REQUIRES(mutex_);
    void finish(const Pass& pass, bool remainsDown) EXCLUDES(mutex_);

    AddressChoice& addresses_;

    // Held while an address is chosen.
    Mutex mutex_{LockRank::transaction};
    Backoff backoff_ GUARDED_BY(mutex_);
    std::uint64_t failures_ GUARDED_BY(mutex_) = 0;
    bool isDown_ GUARDED_BY(mutex_) = false;
    // The one delivery that may be in flight while the server is down.
    bool isProbed_ GUARDED_BY(mutex_) = false;
    // The end of the wait.
    Clock::Monotonic waitEnds_ GUARDED_BY(mutex_);
    // While all addresses are held back: the earliest end of a hold.
    std::optional<Clock::Monotonic> allHeldUntil_ GUARDED_BY(mutex_);
    // When each hold ends. Old ones are removed at each addition.
    std::map<Server, Clock::Monotonic> holds_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
