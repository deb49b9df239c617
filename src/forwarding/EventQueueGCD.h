// The spool between collection and delivery: a batch of events in memory, and full batches as files.
//
// A file "event_" + time stamp in the event-data folder holds one batch as a JSON array, in the order of arrival; it is
// written whole, never changed, and deleted by the forwarder. The spool announces its work by notifications, on its own
// serial queue; observers must hand the work on and must not call back from within the notification.
//
// Files are announced in the order of their names, at most kFilesAnnounced ahead of `dequeue`. The names of the others
// wait, so that a large backlog costs the forwarder neither memory nor time. While the server is not reachable, that
// portion alone is announced again every ten seconds.
//
// Safe from any thread once init has been called. The batch in memory is bounded by the configured batch size, but
// grows beyond it by what arrives while a failed delivery puts its events back.

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

    // A file is ready; its URL is in the user info under kFileUrl.
    static constexpr const char* kEventFileNotification = "EventFileNotification";
    static constexpr const char* kFileUrl = "FileURL";
    // There may be events in memory.
    static constexpr const char* kEventForwardNotification = "EventForwardNotification";
    // The time of the last event may be stored.
    static constexpr const char* kTimeUpdateNotification = "TimeUpdateNotification";

    // How many files are announced and not yet asked for, at most.
    static constexpr std::size_t kFilesAnnounced = 32;

    // What the notifications of the spool carry as their object.
    static const void* identity();

    // Sets the spool up once a process.
    static void init();

    // Adds an event; the batch before it is written to a file when it is full. An event that JSON cannot carry is
    // dropped and logged. Ten seconds later the two delayed notifications are posted, once for each event.
    static void enqueue(Dictionary event);

    // The bytes of a spooled file, or without one the batch in memory, which is then empty, as a JSON array. Nothing
    // when there is nothing to send or the server is not reachable; the announcement is then repeated later.
    static std::optional<std::string> dequeue(const std::optional<FileUrl>& file);

    // Announces the files that lie in the event-data folder. Called once, by a forwarder that has just begun to
    // observe: what was announced before has not been heard. Files that keep what was no batch are not announced.
    static void announceFiles();

    // Announces the file with the next round of announcements, ten seconds from now at the latest.
    static void announceAgain(const FileUrl& file);

    // The number of events in memory.
    static std::size_t length();
    // The same without waiting for the spool's queue, which a slow disk may hold up; 0 before init. For the end of the
    // process.
    static std::size_t lengthAtEnd();
};

}  // namespace sentrova
