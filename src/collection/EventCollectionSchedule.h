// The operation that reads the trail files on the disk, one after another, the one modified longest ago first.
//
// It runs queued on the main queue under the name "EventCollectionSchedule", and as the work of the scheduled task
// "EventCollection", whose `start` is called directly. It does not start while the queued one reads, while the agent is
// disabled, while the spool has reached its size limit, or while the spool's folder cannot be used. Of two passes that
// were let in, the second one waits for the end of the first.

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
    // Ends the reading of the present file; the files after it are still read.
    void cancel() override;
};

}  // namespace sentrova
