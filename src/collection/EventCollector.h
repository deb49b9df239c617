// The operation that reads one audit source from start to end: a closed trail file, or the live audit device.
//
// It drops records that are older than the newest record read, or whose type is not configured, and passes the event of
// every other record to the spool. LastRead keeps the time of the newest record for the whole process, and stores it in
// `myconfigurations.plist` whenever "TimeUpdateNotification" is posted, so that collection resumes there after a
// restart.

#pragma once

#include "collection/AuditSource.h"
#include "collection/EventSelection.h"
#include "collection/ReadingCount.h"
#include "collection/RecordEvents.h"
#include "collection/bsm/RecordReader.h"
#include "foundation/run/Mutex.h"
#include "operations/ConcurrentOperationAbstract.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sentrova {

class EventCollector final : public ConcurrentOperationAbstract {
  public:
    // Opens the source. If the source cannot be opened or need not be read, the collector is cancelled at once. Without
    // names, every event type is collected.
    EventCollector(const std::string& path, const std::optional<std::vector<std::string>>& eventsToRead);

    // Reads on the calling thread until the source ends or the operation is cancelled.
    void start() override;
    // May be called from any thread. A reader that waits for the device ends at once, any other at its next record.
    void cancel() override;

    // Whether a record of that type and time (whole seconds since 1970) is collected. Moves the last-read time forward,
    // unless the collector was cancelled.
    bool shouldProcessRecord(std::uint16_t eventType, std::uint64_t withTimeStamp) const;
    // Whether a trail file may have unread records, that is, was not last modified before the last-read time.
    static bool shouldReadFile(const std::string& path);

    // Posts the notification to store the last-read time, which is stored if it is newer than the stored one.
    void updateTime();

    // The last-read time: whole seconds since 1970 of the newest record read. It never moves back.
    static std::uint64_t LastTimeStamp();

  protected:
    void finishFailed() override { complete(); }

  private:
    std::shared_ptr<AuditSource> initAuditFile(const std::string& path) const;
    std::shared_ptr<AuditSource> auditFile() const EXCLUDES(mutex_);
    void readEvents();
    void readRecords(AuditSource& source);
    void noteDrops(AuditSource& source);
    void logEnd(const bsm::RecordReader& reader, const AuditSource& source) const;
    void complete() EXCLUDES(mutex_);

    const std::string path_;
    const EventSelection eventsToRead_;
    // Used only by the reading thread.
    RecordEvents events_;
    std::uint64_t records_ = 0;
    ReadingCount count_;
    std::uint64_t knownDrops_ = 0;

    mutable Mutex mutex_;
    std::shared_ptr<AuditSource> auditFile_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
