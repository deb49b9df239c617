#include "collection/EventCollectorRealtime.h"

#include "collection/AuditSource.h"
#include "collection/Collections.h"
#include "collection/DurableCollection.h"
#include "collection/EventSelection.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "foundation/run/Current.h"

namespace sentrova {

namespace {
constexpr LogSource kLog("EventCollectorRealtime");
constexpr const char* kCollection = "Realtime collection";
RealtimeCollection& collection() {
    return Current<RealtimeCollection>::get();
}
}  // namespace

// Start and cancel may run at once on different threads, and two operations may start at once.
//
// The slot holds the newest reader of all operations. The turn makes "is there a reader?" (canStart) and "here is mine"
// (set) one step, so that only one reader reads the device.
//
// A cancel sets its flag first, then looks for a reader. If the reader is not in the slot yet, start sees the flag
// afterwards and cancels the reader. If it is in the slot but not executing yet, cancel reaches it through reader_.
// Otherwise that reader would begin and never end.
//
// At the spool's size limit the observation calls cancel, which also drops the observation. This operation then never
// restarts. Only a fall below the limit that is observed before any cancel restarts the reading.
EventCollectorRealtime::EventCollectorRealtime() : ConcurrentOperationAbstract("EventCollectorRealtime") {
    kLog.debug("EventCollectorRealtime init called");
}

bool EventCollectorRealtime::canStart() {
    kLog.debug("EventCollectorRealtime canStart called");
    const auto& configuration = GlobalVariables::getInstance();
    const bool notRealTime = !configuration.isRealTime();
    const bool disabled = !configuration.isEnabled();
    const bool full = configuration.maxEventDataSizeReached();
    auto* const durable = DurableCollection::inForce();
    const bool reading = durable ? durable->isLive() : collection().slot.isBusy();
    const auto reason = CollectionRefusal::reason();
    if (!isCancelled() && !notRealTime && !reading) {
        collection().refusal.note(kLog, kCollection, reason);
        // The durable collection waits until the spool is below its limit.
        if (!reason || (durable && full && !disabled)) {
            return true;
        }
    }
    finishRefused();
    kLog.info("{:d} {:d} {:d} {:d} {:d}", isCancelled(), notRealTime, disabled, full, reading);
    return false;
}

void EventCollectorRealtime::start() {
    kLog.debug("EventCollectorRealtime start called");
    if (auto* const durable = DurableCollection::inForce()) {
        startDurably(*durable);
        return;
    }
    const auto reader = makeReader();
    if (!reader) {
        kLog.error("EventCollectorRealtime didn't run because conditions didnot match");
        return;
    }
    // A cancel that came before the reader was in the slot found nothing to end.
    if (isCancelled()) {
        reader->cancel();
        MutexLock lock(mutex_);
        observation_.reset();
    }
    if (!reader->run()) {
        completeOperation();
    }
}

void EventCollectorRealtime::startDurably(DurableCollection& durable) {
    if (!canStart()) {
        kLog.error("EventCollectorRealtime didn't run because conditions didnot match");
        return;
    }
    started();
    // For the log alone: at the limit, the collection waits by itself.
    const auto observation = observeLimit();
    durable.live([this] { return isCancelled(); });
    completeOperation();
}

Subscription EventCollectorRealtime::observeLimit() {
    return GlobalVariables::getInstance().observe(GlobalVariables::kMaxEventDataSizeReached,
                                                  [weak = weak_from_this()](const KeyValueChange& change) {
                                                      if (const auto self = weak.lock()) {
                                                          self->observeValueForKeyPath(change);
                                                      }
                                                  });
}

std::shared_ptr<EventCollector> EventCollectorRealtime::makeReader() {
    // See above: the check and the set of the slot are one step.
    const ReaderSlot::Turn turn(collection().slot);
    if (!canStart()) {
        return nullptr;
    }
    started();
    auto observation = observeLimit();
    auto reader = std::make_shared<EventCollector>(
        AuditSource::kPipe, EventSelection::split(GlobalVariables::getInstance().eventsToRead()));
    collection().slot.set(reader);
    MutexLock lock(mutex_);
    observation_ = std::move(observation);
    reader_ = reader;
    return reader;
}

void EventCollectorRealtime::cancel() {
    kLog.error("EventCollectorRealtime cancel called");
    {
        MutexLock lock(mutex_);
        observation_.reset();
    }
    // The flag first: start then cancels a reader that is not in the slot yet.
    cancelOperation();
    collection().slot.cancelExecuting();
    std::shared_ptr<EventCollector> reader;
    {
        MutexLock lock(mutex_);
        reader = reader_;
    }
    // A reader that is in the slot but not executing yet.
    if (reader && !reader->isCancelled() && !reader->isFinished()) {
        reader->cancel();
    }
    if (auto* const durable = DurableCollection::inForce()) {
        durable->wake();
    }
    completeOperation();
}

void EventCollectorRealtime::observeValueForKeyPath(const KeyValueChange& change) {
    if (change.key != GlobalVariables::kMaxEventDataSizeReached ||
        change.oldValue.integerValue() == change.newValue.integerValue()) {
        return;
    }
    if (DurableCollection::inForce()) {
        collection().refusal.note(kLog, kCollection, CollectionRefusal::reason());
    } else if (change.newValue.integerValue() == 1) {
        collection().refusal.note(kLog, kCollection, CollectionRefusal::reason());
        cancel();
    } else {
        clearCancelled();
        run();
    }
}

}  // namespace sentrova
