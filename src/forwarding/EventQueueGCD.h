// The spool between collection and delivery: a batch of events in memory, and full batches as files.
//
// A file "event_" + time stamp in the event-data folder holds one batch as a JSON array, in the order of arrival. It is
// written as a whole, never changed, and deleted by the forwarder. The spool announces its work by notifications on its
// own serial queue. Observers must queue the work and must not call back into the spool from the notification.
//
// Files are announced in name order. At most kFilesAnnounced are announced and not yet read by `dequeue`; the other
// names wait, so that a large backlog costs the forwarder neither memory nor time. While the server is not reachable,
// only these files are announced again, every ten seconds.
//
// Safe from any thread once init has been called. The batch in memory is bounded by the configured batch size, except
// that new events may come while a failed delivery returns its events.

#pragma once

#include "foundation/files/FileUrl.h"
#include "foundation/value/Value.h"

#include <cstddef>
#include <optional>
#include <string>

namespace sentrova {

class EventQueueGCD {
  public:
    EventQueueGCD() = delete;

    // A file is ready. The user info has its URL under kFileUrl.
    static constexpr const char* kEventFileNotification = "EventFileNotification";
    static constexpr const char* kFileUrl = "FileURL";
    // There may be events in memory.
    static constexpr const char* kEventForwardNotification = "EventForwardNotification";
    // The time of the last event may be stored.
    static constexpr const char* kTimeUpdateNotification = "TimeUpdateNotification";

    // The highest number of files that are announced and not yet read.
    static constexpr std::size_t kFilesAnnounced = 32;

    // The object of the spool's notifications.
    static const void* identity();

    // Sets up the spool. Only the first call per process does anything.
    static void init();

    // Adds an event. If the batch is full, it is written to a file first. An event that JSON cannot represent is
    // dropped and logged. Ten seconds later the pair of delayed notifications (kEventForwardNotification,
    // kTimeUpdateNotification) is posted, one pair per event.
    static void enqueue(Dictionary event);

    // Returns the bytes of the spool file, or without a file the batch in memory as a JSON array; the batch is empty
    // afterwards. Returns nothing if there is nothing to send or the server is not reachable. In the latter case the
    // announcement is repeated later.
    static std::optional<std::string> dequeue(const std::optional<FileUrl>& file);

    // Announces the files in the event-data folder. Called once by a forwarder that has just begun to observe, because
    // it has missed earlier announcements. "undelivered_" files are not announced.
    static void announceFiles();

    // Announces the file again in the next round of announcements, after at most ten seconds.
    static void announceAgain(const FileUrl& file);

    // The number of events in memory.
    static std::size_t length();
    // The same, without waiting for the spool's queue, which a slow disk may block; 0 before init. For the end of the
    // process.
    static std::size_t lengthAtEnd();
};

}  // namespace sentrova
