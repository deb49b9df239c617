// The operation that reads the trail files on disk, in the order of their modification times, oldest first.
//
// It runs on the main queue under the name "EventCollectionSchedule", and as the scheduled task "EventCollection",
// which calls `start` directly. It does not start while the operation on the main queue is reading, while the agent is
// disabled, while the spool has reached its size limit, or while the spool folder cannot be used. If two passes start
// at once, the second one waits until the first has ended.

#pragma once

#include "operations/ConcurrentOperationAbstract.h"

#include <memory>

namespace sentrova {

class EventCollectionSchedule final : public ConcurrentOperationAbstract {
  public:
    static constexpr const char* kOperationName = "EventCollectionSchedule";

    EventCollectionSchedule();

    bool canStart() override;
    void start() override;
    // Stops reading the current file. Later files are still read.
    void cancel() override;
};

}  // namespace sentrova
