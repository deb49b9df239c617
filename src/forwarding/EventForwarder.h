// The operation that delivers the batches that the spool announces: one batch per request, in the order of the
// announcements. It runs until it is cancelled.
//
// A delivery does not wait for the answer to the previous one. At most kDeliveriesInFlight are in flight, one per
// connection of the session, so that a large backlog stays on disk and not in memory. A batch that is not answered with
// 200 returns to the spool. If a request cannot begin, its batch stays in the spool: a file is announced again, and
// events return to memory.

#pragma once

#include "foundation/files/FileUrl.h"
#include "foundation/run/Mutex.h"
#include "foundation/run/NotificationCenter.h"
#include "foundation/run/Subscription.h"
#include "operations/ConcurrentOperationAbstract.h"
#include "operations/OperationsHandler.h"

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sentrova {

class EventForwarder final : public ConcurrentOperationAbstract, public std::enable_shared_from_this<EventForwarder> {
  public:
    static constexpr std::size_t kDeliveriesInFlight = 6;

    // A new forwarder; uses the current NotificationCenter and Clock.
    static std::shared_ptr<EventForwarder> init();

    void start() override;
    void cancel() override;

    // Observers of the spool's notifications. They only queue the delivery.
    void gotFilesToProcess(const Notification& notification);
    void gotEventsToProcess(const Notification& notification);

    // One delivery: the given file, or the events in memory. A file is deleted as soon as its request has begun. Runs
    // on the forwarder's own queue and may block until an earlier delivery is answered.
    void process(const std::optional<FileUrl>& file);

    // One of the kDeliveriesInFlight places. Released with the last copy.
    using Slot = std::shared_ptr<void>;

    // Posts one batch, or returns its events to the spool while the server is not reachable. Returns false, with a line
    // in the log, if the request could not begin; the batch is still the caller's.
    [[nodiscard]] bool SendData(const std::shared_ptr<const std::string>& data, Slot slot);

  private:
    // Counts the deliveries in flight. A shared object, because completions of requests may outlive the forwarder.
    class Slots : public std::enable_shared_from_this<Slots> {
      public:
        // Waits for a free place. Returns null if the forwarder has been cancelled.
        Slot take() EXCLUDES(mutex_);
        void close() EXCLUDES(mutex_);

      private:
        void release() EXCLUDES(mutex_);

        Mutex mutex_;
        Condition changed_;
        std::size_t taken_ GUARDED_BY(mutex_) = 0;
        bool closed_ GUARDED_BY(mutex_) = false;
    };

    EventForwarder(NotificationCenter& notifications, Clock& clock);

    // Returns true if the batch has been sent, or its events have returned to the spool's memory; a file can be deleted
    // then.
    bool deliver(const std::optional<FileUrl>& file);

    NotificationCenter& notifications_;
    const std::shared_ptr<Slots> slots_ = std::make_shared<Slots>();
    Mutex observersMutex_{LockRank::owner};
    std::vector<Subscription> observers_ GUARDED_BY(observersMutex_);
    // A delivery of the events in memory is queued. While a server is slow, not every event may queue another one.
    std::atomic<bool> eventsWait_ = false;
    OperationsHandler opQueue_;
};

}  // namespace sentrova
