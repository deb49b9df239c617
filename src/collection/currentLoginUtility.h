// Who was logged on when: a small history of console logins and logon records, for naming the user of events that do
// not carry a name.
//
// Kept in memory and, as a keyed archive, in the file `currentLogins` of the configuration folder, and pruned against
// the time of the last event at each addition. Safe from any thread.

#pragma once

#include "foundation/value/Value.h"

#include <cstdint>
#include <optional>

namespace sentrova {

class currentLoginUtility {
  public:
    currentLoginUtility() = delete;

    // Loads the history and adds the present owner of the console. Comes before the first use by itself.
    static void initialize();
    // Watches the console from now on.
    static void init();
    // Stops watching the console.
    static void suspend();

    // The console's attributes have changed.
    static void gotChanges();
    // Adds the present owner of the console.
    static void getCurrentUser();

    // The entry has the account's name under "uid", and for a console login a "gid". Of two entries of one second the
    // later stays. Additions in quick succession share the writing of the file; see flush.
    static void addToLoginHistory(const Dictionary& entry, double withTimestamp);

    // The latest entry at or before one second after the time; nothing when there is none.
    static std::optional<Dictionary> getLogonUserAtTime(std::int64_t time);

    // Writes what was added and is not yet in the file.
    static void flush();
};

}  // namespace sentrova
