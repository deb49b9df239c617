// The configuration syncs of the process: at most one at a time, asked for by the schedule or by an administrator.

#pragma once

#include "foundation/run/Clock.h"
#include "foundation/run/Mutex.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace sentrova {

// Safe from any thread.
class SyncRounds {
  public:
    // The clock must outlive the object.
    explicit SyncRounds(Clock& clock) : clock_(clock) {}

    enum class Outcome : std::uint8_t {
        // The answer has been applied.
        applied,
        // The server answered, but the answer was not applied.
        rejected,
        // Every address has failed.
        failed,
    };

    // The turn of one sync. While another sync has it, the constructor waits until that sync ends: the caller has
    // joined the other sync then, and does not hold the turn.
    class Turn {
      public:
        explicit Turn(SyncRounds& rounds);
        ~Turn();
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

        bool isHeld() const { return isHeld_; }

      private:
        SyncRounds& rounds_;
        bool isHeld_ = false;
    };

    // Blocks the sync that has the turn for the duration, or until a sync is asked for.
    void pause(Clock::Duration duration) EXCLUDES(mutex_);
    // An answer has come and is about to be applied; `end` follows.
    void beginApplying() EXCLUDES(mutex_);
    // Notes the end of a round: an answer, or a failure at every address. `text` says what happened.
    void end(Outcome outcome, std::string text) EXCLUDES(mutex_);

    // A sync is asked for now. Ends a pause. Returns true if no sync is under way, so that the caller must begin one.
    bool ask() EXCLUDES(mutex_);
    // Whether a sync was asked for that no round serves: it came just before the end of a sync.
    bool isAwaited() EXCLUDES(mutex_);

    struct Round {
        Outcome outcome = Outcome::failed;
        std::string text;
        // Whole seconds since 1970.
        std::int64_t time = 0;
    };
    struct State {
        // Since when a sync is under way, in seconds since 1970; absent if none is.
        std::optional<std::int64_t> underWaySince;
        // How often a sync was asked for, and how many of these requests came before the end of the last round.
        std::uint64_t asked = 0;
        std::uint64_t served = 0;
        std::optional<Round> last;
    };
    State state() EXCLUDES(mutex_);

  private:
    // Shared with the clock's timer, which may run after the object is destroyed.
    struct Pause {
        Mutex mutex;
        Condition changed;
        bool isOver GUARDED_BY(mutex) = false;

        void end() EXCLUDES(mutex);
        void wait() EXCLUDES(mutex);
    };

    Clock& clock_;
    Mutex mutex_{LockRank::owner};
    Condition changed_;
    State state_ GUARDED_BY(mutex_);
    bool isApplying_ GUARDED_BY(mutex_) = false;
    // The number of ended syncs.
    std::uint64_t turns_ GUARDED_BY(mutex_) = 0;
    std::shared_ptr<Pause> pause_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
