// Who was logged on when: a small history of console logins and logon records. It gives a user to events that do not
// name one.
//
// The history is in memory and, as a keyed archive, in the file `currentLogins` of the configuration folder. Each
// addition removes entries that are older than the last event. Safe from any thread.

#pragma once

#include "foundation/value/Value.h"

#include <cstdint>
#include <optional>

namespace sentrova {

class currentLoginUtility {
  public:
    currentLoginUtility() = delete;

    // Loads the history and adds the current owner of the console. Only the first call does anything. Every other
    // function except flush calls it first.
    static void initialize();
    // Calls initialize and starts watching the console.
    static void init();
    // Stops watching the console.
    static void suspend();

    // Called when the console's attributes have changed.
    static void gotChanges();
    // Adds the current owner of the console.
    static void getCurrentUser();

    // The entry has the account's name under "uid", and for a console login its "gid". `withTimestamp` is in seconds
    // since 1970. Of two entries in one second, the later one replaces the earlier one. Additions in quick succession
    // share a write of the file; see flush.
    static void addToLoginHistory(const Dictionary& entry, double withTimestamp);

    // Returns the latest entry up to one second after `time` (seconds since 1970); nothing if there is none.
    static std::optional<Dictionary> getLogonUserAtTime(std::int64_t time);

    // Writes the additions that are not in the file yet.
    static void flush();
};

}  // namespace sentrova
