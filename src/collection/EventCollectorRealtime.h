// The operation that reads audit records from the live audit device while the system writes them.
//
// It starts only if realtime collection and the agent are enabled, the spool is below its size limit, and the spool
// folder can be used. It stops permanently when the spool reaches the limit; to continue, a new operation must be
// queued. It blocks its thread while it reads. It stays executing until it is cancelled, even if the device could not
// be opened.
//
// In the durable mode it reads the trails too, at the limit it waits, and a device that fails is opened again.

#pragma once

#include "collection/EventCollector.h"
#include "foundation/run/KeyValueObserving.h"
#include "foundation/run/Mutex.h"
#include "operations/ConcurrentOperationAbstract.h"

#include <memory>

namespace sentrova {

class DurableCollection;

class EventCollectorRealtime final : public ConcurrentOperationAbstract,
                                     public std::enable_shared_from_this<EventCollectorRealtime> {
  public:
    static constexpr const char* kOperationName = "EventCollectorRealtime";

    EventCollectorRealtime();

    bool canStart() override;
    void start() override;
    void cancel() override;

    // Observes the flag of the spool's size limit. Only a change of its value counts.
    void observeValueForKeyPath(const KeyValueChange& change);

  private:
    void startDurably(DurableCollection& durable);
    Subscription observeLimit();
    // Creates the reader and puts it into the slot. Returns null if the operation may not start; it is finished then.
    std::shared_ptr<EventCollector> makeReader() EXCLUDES(mutex_);

    Mutex mutex_{LockRank::owner};
    Subscription observation_ GUARDED_BY(mutex_);
    // The reader of the last start.
    std::shared_ptr<EventCollector> reader_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
