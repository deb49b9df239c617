// Where a stopped agent goes on reading, as its files say, and how that is set back.

#pragma once

#include "control/InstallationFolder.h"
#include "control/ReplayHistory.h"
#include "control/ReplayTrails.h"
#include "forwarding/JournalRecovery.h"
#include "foundation/files/FileSystem.h"
#include "foundation/value/Cryptography.h"
#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sentrova::control {

// The position of the durable mode is in its journal, that of an agent without the mode is the time of the last event
// in `myconfigurations.plist`. Both are set back: the agent uses the time for the login history in either mode.
class ReplayPosition {
  public:
    // Reads the files and changes nothing. Fails if a file cannot be used. The installation, the file system and the
    // cryptography must outlive the object.
    static Result<ReplayPosition> read(const InstallationFolder& installation, FileSystem& files,
                                       const Cryptography& cryptography);

    // Why the position cannot be set back to that time (seconds since 1970); nothing if it can be.
    std::optional<std::string> refusal(std::uint64_t since) const;

    // "EventsToRead" as it is configured.
    const std::optional<std::string>& eventsToRead() const { return eventsToRead_; }

    // Sets the position back to the time of the trails. No agent may run meanwhile. The login history is completed
    // first, then the journal is changed in one piece, then the time is stored. Returns what failed and what that
    // leaves, in words; nothing after a success.
    std::optional<std::string> setBack(const ReplayTrails& trails, const ReplayHistory& history) const;

  private:
    ReplayPosition(const InstallationFolder& installation, FileSystem& files, const Cryptography& cryptography)
        : installation_(installation), files_(files), cryptography_(cryptography) {}

    // The time of the newest record read, in seconds since 1970; 0 if nothing is stored.
    std::uint64_t newest() const;
    // Whether the next start goes on from positions of the journal.
    bool isInJournal() const;
    std::vector<journal::Entry> journalChanges(const ReplayTrails& trails) const;
    std::optional<Error> changeJournal(std::vector<journal::Entry> entries) const;
    std::optional<Error> storeTime(std::uint64_t time) const;

    const InstallationFolder& installation_;
    FileSystem& files_;
    const Cryptography& cryptography_;

    std::uint64_t storedTime_ = 0;
    // "RecentEventTimeMillis", in seconds since 1970.
    std::optional<std::int64_t> recentTime_;
    std::optional<std::string> eventsToRead_;
    bool isDurable_ = false;
    JournalRecovery journal_;
};

}  // namespace sentrova::control
