// The operation that delivers the batches of the durable spool, in place of EventForwarder. It runs until it is
// cancelled.
//
// A batch leaves the spool when the server has confirmed it, and returns to it after every other outcome. At most
// kDeliveriesInFlight are in flight. They begin in the order in which the spool hands them out. ServerGate decides when
// a delivery may begin and to which address. docs/protocol.md has the table of statuses.

#pragma once

#include "forwarding/DurableSpool.h"
#include "forwarding/ServerGate.h"
#include "forwarding/Transport.h"
#include "forwarding/TransportEngine.h"
#include "foundation/net/UrlSession.h"
#include "foundation/run/Clock.h"
#include "foundation/run/DispatchQueue.h"
#include "foundation/run/Mutex.h"
#include "foundation/run/Subscription.h"
#include "foundation/value/Cryptography.h"
#include "operations/ConcurrentOperationAbstract.h"

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>

namespace sentrova {

class DurableForwarder final : public ConcurrentOperationAbstract,
                               public std::enable_shared_from_this<DurableForwarder> {
  public:
    static constexpr std::size_t kDeliveriesInFlight = 6;

    // The arguments must outlive the forwarder and the requests in flight, whose completions hold the forwarder.
    static std::shared_ptr<DurableForwarder> make(DurableSpool& spool, Transport& transport, Clock& clock,
                                                  const Cryptography& cryptography);

    void start() override;
    // No delivery begins after it. The answers to deliveries in flight are still heeded.
    void cancel() override;

  private:
    // A delivery in flight.
    struct Sent {
        DurableSpool::Delivery batch;
        ServerGate::Pass pass;
        TransportEngine engine;
    };

    DurableForwarder(DurableSpool& spool, Transport& transport, Clock& clock, const Cryptography& cryptography);

    // Begins what may begin, on the forwarder's queue. Returns at once. Safe from any thread.
    void wake();
    // These run on the queue. The last two return false if no delivery began.
    void pump();
    void wakeAt(std::optional<Clock::Monotonic> due);
    bool sendNext();
    bool send(const DurableSpool::Delivery& batch, const ServerGate::Pass& pass);

    // The completion of a request. Runs on the session's delegate queue.
    void finish(Sent& sent, const std::optional<Data>& body, const std::optional<UrlResponse>& response,
                const std::optional<Error>& error);
    void noteFailure(Sent& sent, const std::optional<UrlResponse>& response);

    DurableSpool& spool_;
    Transport& transport_;
    Clock& clock_;
    ServerGate gate_;
    std::atomic<std::size_t> inFlight_ = 0;

    Mutex successesMutex_{LockRank::owner};
    Subscription successes_ GUARDED_BY(successesMutex_);

    // Used only on the queue: the timer for the moment at which the gate opens.
    Clock::TimerId timer_ = 0;

    // Declared last, so that its thread ends before the other members are destroyed.
    DispatchQueue queue_;
};

}  // namespace sentrova
