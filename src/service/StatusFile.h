// Writes `status.json` in the log folder: what the agent knows of itself, for sentrovactl. docs/formats.md describes
// the file.

#pragma once

#include "collection/LastRead.h"
#include "core/GlobalVariables.h"
#include "core/Statistics.h"
#include "forwarding/DurableSpool.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/Clock.h"
#include "foundation/run/Mutex.h"
#include "foundation/value/Value.h"
#include "operations/TaskList.h"
#include "platform/AuditCondition.h"
#include "sync/SyncRounds.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace sentrova {

// Safe from any thread.
class StatusFile {
  public:
    // The number of the format.
    static constexpr std::int64_t kVersion = 1;
    static constexpr std::string_view kName = "status.json";

    enum class Phase : std::uint8_t {
        // Before the first sync has been answered.
        starting,
        running,
        ended,
    };

    // All of it must outlive the object.
    struct Surroundings {
        GlobalVariables& configuration;
        Statistics& statistics;
        TaskList& tasks;
        SyncRounds& syncs;
        FileSystem& files;
        Clock& clock;
        platform::AuditCondition& auditCondition;
    };

    explicit StatusFile(const Surroundings& with);

    // Takes over what the file of the previous run says of the last events, and writes the file. From now on `write`
    // works; before that, the installation may belong to another agent.
    void begin(const std::string& folder) EXCLUDES(mutex_);
    void enter(Phase phase) EXCLUDES(mutex_);
    // Replaces the file. Does nothing before begin. A failure is logged.
    void write() EXCLUDES(mutex_);

  private:
    Dictionary content() REQUIRES(mutex_);

    const Surroundings with_;
    const std::int64_t since_;

    // Held while the file is written, so that an older content never replaces a newer one.
    Mutex mutex_{LockRank::transaction};
    std::optional<std::string> path_ GUARDED_BY(mutex_);
    Phase phase_ GUARDED_BY(mutex_) = Phase::starting;
};

}  // namespace sentrova
