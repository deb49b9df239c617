// The operation that reads one audit source from start to end: a closed trail file, or the live audit device.
//
// It drops records that are older than the last event or whose type is not configured, and hands the event of every
// other one to the spool. The time of the newest record read is one for the whole process; it makes collection
// resumable across restarts, and is stored in `myconfigurations.plist` whenever "TimeUpdateNotification" is posted.

#pragma once

#include "collection/AuditSource.h"
#include "collection/Event.h"
#include "collection/EventSelection.h"
#include "collection/bsm/RecordReader.h"
#include "collection/bsm/Token.h"
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
    // Opens the source. A collector whose source cannot be opened, or need not be read, is cancelled at once. Without
    // names every event is collected.
    EventCollector(const std::string& path, const std::optional<std::vector<std::string>>& eventsToRead);

    // Reads on the calling thread until the source ends or the operation is cancelled.
    void start() override;
    // From any thread: a reader that waits for the device ends at once, any other at its next record.
    void cancel() override;

    // Whether a record of the type and time (whole seconds since 1970) is to be collected. Moves the time on, unless
    // the collector was cancelled.
    bool shouldProcessRecord(std::uint16_t eventType, std::uint64_t withTimeStamp) const;
    // Whether a trail file may hold records that have not been read: it was not modified before the last one.
    static bool shouldReadFile(const std::string& path);

    // Announces that the time may be stored, which stores it when it is newer than the stored one.
    void updateTime();

    // Whole seconds since 1970 of the newest record that was read; never goes back.
    static std::uint64_t LastTimeStamp();

  protected:
    void finishFailed() override { complete(); }

  private:
    struct Counts {
        std::uint64_t records = 0;
        std::uint64_t events = 0;
        std::uint64_t excluded = 0;
    };

    std::shared_ptr<AuditSource> initAuditFile(const std::string& path) const;
    std::shared_ptr<AuditSource> auditFile() const EXCLUDES(mutex_);
    void readEvents();
    void readRecords(AuditSource& source);
    void readRecord(std::span<const std::uint8_t> record);
    void handleToken(const bsm::Token& token, Event& event);
    void deliver(Event& event);
    void logEnd(const bsm::RecordReader& reader, const AuditSource& source) const;
    void complete() EXCLUDES(mutex_);

    const std::string path_;
    const EventSelection eventsToRead_;
    // Of the reading thread.
    Counts counts_;

    mutable Mutex mutex_;
    std::shared_ptr<AuditSource> auditFile_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
