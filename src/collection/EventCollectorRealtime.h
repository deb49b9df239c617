// The operation that reads audit records as the system makes them, from the live audit device.
//
// It starts only while realtime collection and the agent are enabled and the spool is below its size limit and in a
// folder that can be used, and stops for good when that limit is reached: to read on, a new operation is queued. It
// occupies its thread while it reads, and stays executing until it is cancelled, also when there is nothing to read.

#pragma once

#include "collection/EventCollector.h"
#include "foundation/run/KeyValueObserving.h"
#include "foundation/run/Mutex.h"
#include "operations/ConcurrentOperationAbstract.h"

#include <memory>

namespace sentrova {

class EventCollectorRealtime final : public ConcurrentOperationAbstract,
                                     public std::enable_shared_from_this<EventCollectorRealtime> {
  public:
    static constexpr const char* kOperationName = "EventCollectorRealtime";

    EventCollectorRealtime();

    bool canStart() override;
    void start() override;
    void cancel() override;

    // The size limit of the spool has been checked; only a real change of the flag counts.
    void observeValueForKeyPath(const KeyValueChange& change);

  private:
    // The reader of the device, in its place. Null, and the operation is finished, when it may not start.
    std::shared_ptr<EventCollector> makeReader() EXCLUDES(mutex_);

    Mutex mutex_{LockRank::owner};
    Subscription observation_ GUARDED_BY(mutex_);
    // The reader of the latest start.
    std::shared_ptr<EventCollector> reader_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
