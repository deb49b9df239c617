// The spool between collection and delivery. EventQueueGCD.h describes its behaviour and its files.

#pragma once

#include "core/GlobalVariables.h"
#include "forwarding/DelayedPairs.h"
#include "forwarding/EventBatch.h"
#include "forwarding/SpoolFileNames.h"
#include "forwarding/Transport.h"
#include "forwarding/WaitingFiles.h"
#include "foundation/files/FileSystem.h"
#include "foundation/files/FileUrl.h"
#include "foundation/run/Clock.h"
#include "foundation/run/DispatchQueue.h"
#include "foundation/run/Mutex.h"
#include "foundation/run/NotificationCenter.h"
#include "foundation/time/DateFormat.h"
#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

#include <atomic>
#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace sentrova {

// Safe from any thread.
class Spool {
  public:
    // Everything that the spool uses. All of it must outlive the spool.
    struct Surroundings {
        GlobalVariables& configuration;
        Transport& transport;
        FileSystem& files;
        Clock& clock;
        DateFormat& dates;
        NotificationCenter& notifications;
    };

    // Touches no file; see open.
    explicit Spool(const Surroundings& with);
    Spool(const Spool&) = delete;
    Spool& operator=(const Spool&) = delete;

    // Creates the spool folder, and posts kTimeUpdateNotification thirty seconds later. Only the first call does
    // anything.
    void open();

    void enqueue(Dictionary event) EXCLUDES(pairsMutex_);
    std::optional<std::string> dequeue(const std::optional<FileUrl>& file);
    void announceFiles();
    void announceAgain(const FileUrl& file);
    // Renames a file that is kept for the administrator to a new spool file, and announces it. Returns the new name.
    Result<std::string> sendAgain(const std::string& keptName);

    // Stops the posting thread before the objects it uses are destroyed.
    void close() { dispatchQueue_.close(); }

    std::size_t length();
    std::size_t lengthAtEnd() const { return length_; }

    // Writes the bytes of a deleted spool file that turned out not to be a batch to an "undelivered_" file.
    void keepUndelivered(const std::string& data) EXCLUDES(undeliveredMutex_);

  private:
    void add(Dictionary event);
    void flush();
    void write(const std::string& path);
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

    // Used only on the queue.
    EventBatch queueData_;
    SpoolFileNames fileNames_;
    // At most one name per spool file; the spool's size limit bounds them.
    WaitingFiles waiting_;
    // The names of files that are announced and not yet read. None of them is in waiting_.
    std::set<std::string> announced_;
    // The timer of the next round of announcements is set.
    bool roundPending_ = false;
    bool eventsAnnouncedAgain_ = false;

    // The size of queueData_, for readers that must not wait for the queue.
    std::atomic<std::size_t> length_ = 0;

    Mutex pairsMutex_;
    DelayedPairs pairs_ GUARDED_BY(pairsMutex_);
    // A timer or a turn of postDuePairs is pending.
    bool pairsTimed_ GUARDED_BY(pairsMutex_) = false;

    // Held while a name is chosen and its file written, so that two files of one second get different names.
    Mutex undeliveredMutex_{LockRank::file};

    // Declared last, so that its thread ends before the other members are destroyed.
    DispatchQueue dispatchQueue_;
};

}  // namespace sentrova
