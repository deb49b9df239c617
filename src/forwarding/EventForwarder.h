// The operation that delivers what the spool announces: one batch a request, one after another in the order of the
// announcements. It runs until it is cancelled.
//
// A delivery does not wait for the answer to the one before it, but no more are in flight at once than the session has
// connections, so that a large backlog stays on the disk. What is not answered with 200 goes back into the spool. A
// request that could not begin leaves its batch where it was: the file is announced again, events go back into memory.

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

    static std::shared_ptr<EventForwarder> init();

    void start() override;
    void cancel() override;

    // The observers of the spool's notifications; they only hand the work on.
    void gotFilesToProcess(const Notification& notification);
    void gotEventsToProcess(const Notification& notification);

    // One delivery: of the file, or of the events in memory. The file is deleted as soon as the request has begun. On
    // the forwarder's own queue, where it may wait for an earlier answer.
    void process(const std::optional<FileUrl>& file);

    // One of the deliveries in flight; freed with the last copy.
    using Slot = std::shared_ptr<void>;

    // Posts one batch, or gives its events back to the spool while the server is not reachable. False, with a line in
    // the log, when the request could not begin: the batch is still the caller's.
    [[nodiscard]] bool SendData(const std::shared_ptr<const std::string>& data, Slot slot);

  private:
    // Counts the deliveries in flight. The requests' completions may outlive the forwarder.
    class Slots : public std::enable_shared_from_this<Slots> {
      public:
        // Waits for a free one; null when the forwarder has been cancelled.
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

    // Whether the file, if one was given, has been sent or given back to the spool's memory.
    bool deliver(const std::optional<FileUrl>& file);

    NotificationCenter& notifications_;
    const std::shared_ptr<Slots> slots_ = std::make_shared<Slots>();
    Mutex observersMutex_{LockRank::owner};
    std::vector<Subscription> observers_ GUARDED_BY(observersMutex_);
    // A delivery of what is in memory waits on the queue: a slow server must not make one for each event pile up.
    std::atomic<bool> eventsWait_ = false;
    OperationsHandler opQueue_;
};

}  // namespace sentrova
