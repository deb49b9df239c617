#include "collection/EventCollectionSchedule.h"

#include "collection/CollectionRefusal.h"
#include "collection/EventCollector.h"
#include "collection/EventSelection.h"
#include "collection/ReaderSlot.h"
#include "core/AgentServiceHandler.h"
#include "core/FileUtils.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "foundation/Clock.h"
#include "foundation/ProcessWide.h"
#include "operations/ScheduleHandler.h"
#include "operations/TaskRegistry.h"

#include <string>

namespace sentrova {

namespace {

constexpr LogSource kLog("EventCollectionSchedule");
constexpr const char* kTrailFolder = "/var/audit";

const TaskRegistry::Registration kTask("EventCollectionSchedule", "start",
                                       [] { std::make_shared<EventCollectionSchedule>()->run(); });

ProcessWide<ReaderSlot> theSlot;
ProcessWide<CollectionRefusal> theRefusal;

}  // namespace

EventCollectionSchedule::EventCollectionSchedule() : ConcurrentOperationAbstract("EventCollectionSchedule") {
    kLog.debug("init", "EventCollectionFiles init called");
}

bool EventCollectionSchedule::canStart() {
    kLog.debug(__func__, "EventCollectionSchedule canStart called");
    const bool running = AgentServiceHandler::getOperationStatusOnMainQueue(kOperationName);
    kLog.info(__func__, "EventCollectionSchedule running status {:d}", running);
    const auto& configuration = GlobalVariables::getInstance();
    const bool disabled = !configuration.isEnabled();
    const bool full = configuration.maxEventDataSizeReached();
    const auto reason = CollectionRefusal::reason();
    if (!isCancelled() && !running) {
        theRefusal.get().note(kLog, "Batch collection", reason);
        if (!reason) {
            return true;
        }
    }
    finishRefused();
    kLog.info(__func__, "{:d} {:d} {:d} {:d}", isCancelled(), disabled, full, running);
    return false;
}

void EventCollectionSchedule::start() {
    kLog.debug(__func__, "EventCollectionFiles start called");
    if (!canStart()) {
        kLog.error(__func__, "EventCollectionFiles didn't run because conditions didnot match");
        return;
    }
    started();
    // The task's pass and a queued one do not see each other in canStart.
    const ReaderSlot::Turn turn(theSlot.get());
    if (isCancelled()) {
        return;
    }
    const auto files = FileUtils::listOfFilesInPath(kTrailFolder);
    const auto eventsToRead = EventSelection::split(GlobalVariables::getInstance().eventsToRead());
    for (const auto& name : files.value_or(std::vector<std::string>())) {
        const auto path = std::string(kTrailFolder) + "/" + name;
        const auto reader = std::make_shared<EventCollector>(path, eventsToRead);
        theSlot.get().set(reader);
        if (!reader->isCancelled()) {
            reader->run();
            kLog.debug(__func__, "{} file read", path);
        }
    }
    ScheduleHandler::UpdateTaskWithName(kTaskName, ScheduleHandler::kLastScheduleTimeInMillis,
                                        Clock::shared().epochSeconds());
    completeOperation();
}

void EventCollectionSchedule::cancel() {
    kLog.debug(__func__, "EventCollectionFiles cancel called");
    theSlot.get().cancelExecuting();
    cancelOperation();
    completeOperation();
}

}  // namespace sentrova
