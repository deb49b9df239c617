#include "collection/EventCollectionSchedule.h"

#include "collection/Collections.h"
#include "collection/DurableCollection.h"
#include "collection/EventCollector.h"
#include "collection/EventSelection.h"
#include "collection/LastRead.h"
#include "core/FileUtils.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "forwarding/DurableSpool.h"
#include "foundation/run/Clock.h"
#include "foundation/run/Current.h"
#include "operations/MainQueue.h"
#include "operations/ScheduleHandler.h"

#include <string>

namespace sentrova {

namespace {

constexpr LogSource kLog("EventCollectionSchedule");
constexpr const char* kTrailFolder = "/var/audit";

BatchCollection& collection() {
    return Current<BatchCollection>::get();
}

}  // namespace

EventCollectionSchedule::EventCollectionSchedule() : ConcurrentOperationAbstract("EventCollectionSchedule") {
    kLog.debug("EventCollectionFiles init called");
}

bool EventCollectionSchedule::canStart() {
    kLog.debug("EventCollectionSchedule canStart called");
    const bool running = Current<MainQueue>::get().isExecuting(kOperationName);
    kLog.info("EventCollectionSchedule running status {:d}", running);
    const auto& configuration = GlobalVariables::getInstance();
    const bool disabled = !configuration.isEnabled();
    const bool full = configuration.maxEventDataSizeReached();
    const auto reason = CollectionRefusal::reason();
    if (!isCancelled() && !running) {
        collection().refusal.note(kLog, "Batch collection", reason);
        if (!reason) {
            return true;
        }
    }
    finishRefused();
    kLog.info("{:d} {:d} {:d} {:d}", isCancelled(), disabled, full, running);
    return false;
}

void EventCollectionSchedule::start() {
    kLog.debug("EventCollectionFiles start called");
    if (!canStart()) {
        kLog.error("EventCollectionFiles didn't run because conditions didnot match");
        return;
    }
    started();
    const auto isEnded = [this] { return isCancelled(); };
    if (auto* const durable = DurableCollection::inForce()) {
        durable->pass(isEnded);
        Current<DurableSpool>::get().commitNow();
        Current<LastRead>::get().store();
    } else if (!finishDurableMode(isEnded) || !readFiles()) {
        return;
    }
    ScheduleHandler::UpdateTaskWithName(ScheduleHandler::kEventCollection, ScheduleHandler::kLastScheduleTimeInMillis,
                                        Current<Clock>::get().epochSeconds());
    completeOperation();
}

// After the durable mode was switched off, reading goes on from its positions once, and then by the time of the last
// event. Returns false if that ended early.
bool EventCollectionSchedule::finishDurableMode(const DurableCollection::Cancelled& isEnded) {
    auto* const durable = Current<DurableCollection>::orNull();
    return !durable || durable->finish(isEnded);
}

bool EventCollectionSchedule::readFiles() {
    // canStart does not detect a pass of the scheduled task, so two passes may get here. The second one waits.
    const ReaderSlot::Turn turn(collection().slot);
    if (isCancelled()) {
        return false;
    }
    const auto files = FileUtils::listOfFilesInPath(kTrailFolder);
    const auto eventsToRead = EventSelection::split(GlobalVariables::getInstance().eventsToRead());
    for (const auto& name : files.value_or(std::vector<std::string>())) {
        const auto path = std::string(kTrailFolder) + "/" + name;
        const auto reader = std::make_shared<EventCollector>(path, eventsToRead);
        collection().slot.set(reader);
        if (!reader->isCancelled()) {
            reader->run();
            kLog.debug("{} file read", path);
        }
    }
    return true;
}

void EventCollectionSchedule::cancel() {
    kLog.debug("EventCollectionFiles cancel called");
    collection().slot.cancelExecuting();
    cancelOperation();
    if (auto* const durable = Current<DurableCollection>::orNull()) {
        durable->wake();
    }
    completeOperation();
}

}  // namespace sentrova
