// The operation that reads the trail files on disk, in the order of their modification times, oldest first.
//
// It runs on the main queue under the name "EventCollectionSchedule", and as the scheduled task "EventCollection",
// which calls `start` directly. It does not start while the operation on the main queue is reading, while the agent is
// disabled, while the spool has reached its size limit, or while the spool folder cannot be used. If two passes start
// at once, the second one waits until the first has ended. In the durable mode, a pass reads on from the exact
// positions, and ends early when the spool reaches its limit.

#pragma once

#include "collection/DurableCollection.h"
#include "operations/ConcurrentOperationAbstract.h"

#include <memory>

namespace sentrova {

class EventCollectionSchedule final : public ConcurrentOperationAbstract {
  public:
    static constexpr const char* kOperationName = "EventCollectionSchedule";

    EventCollectionSchedule();

    bool canStart() override;
    void start() override;
    // Stops reading the current file. Later files are still read, except in the durable mode.
    void cancel() override;

  private:
    bool finishDurableMode(const DurableCollection::Cancelled& isEnded);
    // Reads all files without the durable mode. Returns false if the operation was cancelled before its turn.
    bool readFiles();
};

}  // namespace sentrova
