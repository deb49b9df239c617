// The spool between collection and delivery: a batch of events in memory, and full batches as files. EventQueueGCD
// describes what it does.

#pragma once

#include "core/GlobalVariables.h"
#include "forwarding/DelayedPairs.h"
#include "forwarding/EventBatch.h"
#include "forwarding/Transport.h"
#include "forwarding/WaitingFiles.h"
#include "foundation/files/FileSystem.h"
#include "foundation/files/FileUrl.h"
#include "foundation/run/DispatchQueue.h"
#include "foundation/run/Mutex.h"
#include "foundation/run/NotificationCenter.h"
#include "foundation/time/Clock.h"
#include "foundation/time/DateFormat.h"
#include "foundation/value/Value.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace sentrova {

// Safe from any thread.
class Spool {
  public:
    // What the spool works with; all of it must outlive the spool.
    struct Surroundings {
        GlobalVariables& configuration;
        Transport& transport;
        FileSystem& files;
        Clock& clock;
        DateFormat& dates;
        NotificationCenter& notifications;
    };

    // Makes nothing on the disk yet: see open.
    explicit Spool(const Surroundings& with);
    Spool(const Spool&) = delete;
    Spool& operator=(const Spool&) = delete;

    // Makes the folder of the spool, and asks for the time to be stored thirty seconds from now. Once: a second call
    // does nothing.
    void open();

    void enqueue(Dictionary event) EXCLUDES(pairsMutex_);
    std::optional<std::string> dequeue(const std::optional<FileUrl>& file);
    void announceFiles();
    void announceAgain(const FileUrl& file);

    // Ends the thread that posts.
    void close() { dispatchQueue_.close(); }

    std::size_t length();
    std::size_t lengthAtEnd() const { return length_; }

    // Keeps the bytes of a file that turned out to hold no batch, and is gone, in a file of their own.
    void keepUndelivered(const std::string& data) EXCLUDES(undeliveredMutex_);

  private:
    void add(Dictionary event);
    void flush();
    void write(const std::string& path);
    std::string nextFileName();
    std::optional<std::string> readFile(const FileUrl& file);
    std::optional<std::string> takeEvents();

    bool post(std::string_view name, Dictionary userInfo = {});
    void announceNext();
    void keepForNextRound(const std::string& name);
    void announceEventsAgain();
    void announceLater() EXCLUDES(pairsMutex_);
    void setPairsTimerLocked(Clock::Duration delay) REQUIRES(pairsMutex_);
    void postDuePairs() EXCLUDES(pairsMutex_);

    const Surroundings with_;
    std::atomic<bool> isOpen_ = false;

    // Only on the queue.
    EventBatch queueData_;
    // The time in the name of the newest file.
    std::chrono::sys_time<std::chrono::milliseconds> lastStamp_;
    // As many as the spool has files, which its size limit bounds.
    WaitingFiles waiting_;
    // The names of those that observers have taken and not yet asked for; none of them waits.
    std::set<std::string> announced_;
    bool roundPending_ = false;
    bool eventsAnnouncedAgain_ = false;

    // The size of queueData_, for readers that cannot wait for the queue.
    std::atomic<std::size_t> length_ = 0;

    Mutex pairsMutex_;
    DelayedPairs pairs_ GUARDED_BY(pairsMutex_);
    bool pairsTimed_ GUARDED_BY(pairsMutex_) = false;

    // Two such files of one second do not share a name: together they might read as one.
    Mutex undeliveredMutex_{LockRank::file};

    // Last, so that its thread has ended before what it works on goes.
    DispatchQueue dispatchQueue_;
};

}  // namespace sentrova
