// Takes records off the live audit device as soon as they come, on a thread of its own, and queues them.
//
// The device's own queue is short, and making an event may take seconds. The reader's queue is bounded too: while it is
// full, records stay in the device. After a fault the device is opened again, with growing waits between the attempts.

#pragma once

#include "collection/AuditSource.h"
#include "collection/EventSelection.h"
#include "collection/bsm/RecordReader.h"
#include "core/Statistics.h"
#include "foundation/run/Backoff.h"
#include "foundation/run/Clock.h"
#include "foundation/run/Mutex.h"
#include "foundation/value/Cryptography.h"
#include "foundation/value/Value.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>

namespace sentrova {

// One thread uses the reader; any thread may call `note`.
class DeviceReader {
  public:
    // The bytes of all queued records.
    static constexpr std::size_t kMostBytes = 16 * 1024 * 1024;

    struct Record {
        Data bytes;
        std::string digest;
        Clock::Monotonic arrived;
    };

    // Starts the thread. Only records of the selected types are queued. The clock, the cryptography and the statistics
    // must outlive the object.
    DeviceReader(const EventSelection& selection, Clock& clock, const Cryptography& cryptography,
                 Statistics& statistics);
    ~DeviceReader() { end(); }
    DeviceReader(const DeviceReader&) = delete;
    DeviceReader& operator=(const DeviceReader&) = delete;

    // Blocks until something came since the last call: a record of any type, an attempt to open the device, a call of
    // `note`, or the time `due`. Returns the number of queued records.
    std::size_t wait(std::optional<Clock::Monotonic> due);
    // The oldest queued record; the queue is not empty. Valid until `pop`.
    const Record& front();
    void pop();
    // The number of records that the device has dropped since the last call, because its queue was full.
    std::uint64_t takeDrops();

    // Ends a wait.
    void note();
    // Closes the device and waits for the thread. The queued records stay.
    void end();
    std::size_t queued();

  private:
    // Shared with the clock's timers, which may run after the reader is destroyed.
    struct State {
        Mutex mutex;
        Condition changed;
        bool hasEnded GUARDED_BY(mutex) = false;
        bool hasNews GUARDED_BY(mutex) = false;
        bool isRetryDue GUARDED_BY(mutex) = false;
        std::deque<Record> records GUARDED_BY(mutex);
        std::size_t bytes GUARDED_BY(mutex) = 0;
        std::uint64_t drops GUARDED_BY(mutex) = 0;
        std::shared_ptr<AuditSource> source GUARDED_BY(mutex);

        void note() EXCLUDES(mutex);
    };
    // The device, which tells of each read.
    class WatchedSource;

    void run();
    void readDevice();
    std::shared_ptr<AuditSource> open();
    void readRecords(AuditSource& source);
    bool keep(std::span<const std::uint8_t> record);
    void noteDrops(AuditSource& source);
    void logEnd(const bsm::RecordReader& reader, int problem);
    bool hasEnded();
    bool isNews(const std::string& fault);
    bool waitForRetry();

    const EventSelection selection_;
    Clock& clock_;
    const Cryptography& cryptography_;
    Statistics& statistics_;
    // Used by the thread alone.
    Backoff backoff_;
    // The fault that was logged last.
    std::string told_;
    std::uint64_t knownDrops_ = 0;

    const std::shared_ptr<State> state_ = std::make_shared<State>();
    std::thread thread_;
};

}  // namespace sentrova
