// The spool of the durable mode: an event is on disk before the position of its source moves past it, and stays there
// until the server has confirmed its batch. docs/reliability.md has the promises, docs/formats.md the files.
//
// Everything that changes is gathered in memory and written by commits, one at a time, on the journal's queue. A commit
// is due one second after the first change, or at once for a full batch, for a batch or key that the forwarder needs,
// and at a stop. Changes that come during a commit join the next one, so that one flush serves all of them.
//
// Safe from any thread.

#pragma once

#include "core/GlobalVariables.h"
#include "forwarding/JournalWriter.h"
#include "forwarding/SpoolFileNames.h"
#include "forwarding/TrailPosition.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/Clock.h"
#include "foundation/run/DispatchQueue.h"
#include "foundation/run/Mutex.h"
#include "foundation/time/DateFormat.h"
#include "foundation/value/Cryptography.h"
#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace sentrova {

class DurableSpool {
  public:
    // Everything that the spool uses. All of it must outlive the spool.
    struct Surroundings {
        GlobalVariables& configuration;
        FileSystem& files;
        Clock& clock;
        DateFormat& dates;
        const Cryptography& cryptography;
    };

    // What the collection does around a commit. All functions run on the journal's queue, and may be empty.
    struct Hooks {
        // Before positions are written: what the records behind them left elsewhere must be on disk.
        std::function<void()> beforeWrite;
        // After a flush: the newest time (seconds since 1970) of the records that are on disk.
        std::function<void(std::uint64_t newest)> flushed;
        // After a position went back because the events behind it are lost: the trail is to be read again.
        std::function<void()> wentBack;
    };

    enum class Mode : std::uint8_t {
        on,
        // The mode was switched off: reading goes on from the position once, and what the journal holds is delivered.
        // Then the files are removed.
        ending,
    };

    // Files of the spool's folder that stay there for the administrator: one that was altered, and one that the server
    // refused for good.
    static constexpr std::string_view kAlteredPrefix = "altered_";
    static constexpr std::string_view kRefusedPrefix = "refused_";

    // The most bytes of events that wait for a commit. A reader waits while there are more.
    static constexpr std::size_t kMostPending = 1024 * 1024;
    // A batch is given up after that many refusals over at least that many seconds.
    static constexpr std::uint64_t kRefusals = 10;
    static constexpr std::int64_t kRefusedFor = 24 * 60 * 60;

    DurableSpool(const Surroundings& with, Hooks hooks);
    DurableSpool(const DurableSpool&) = delete;
    DurableSpool& operator=(const DurableSpool&) = delete;
    ~DurableSpool();

    // Takes up what earlier runs left. `reportedUpTo` (seconds since 1970) is the stored time of the last event, which
    // counts if there is no journal. Returns false, and does nothing, if the files are of a version that this agent
    // does not know, if they cannot be read, or if there is nothing to end. Must be called before all other functions.
    bool open(Mode mode, std::uint64_t reportedUpTo);
    // Commits, and ends the queue. Readers that wait give up.
    void close();

    Mode mode() const { return mode_; }
    // Whether the file of the spool's folder is a batch of this spool.
    bool owns(const std::string& name);
    // For the ending mode: reading went on from the position, and ends there.
    void endCollection();
    // Whether reading still has to go on from the position.
    bool isCollecting();

    // --- Collection.

    // The positions of all trails known.
    std::vector<TrailPosition> positions();
    // While the mode has just been switched on: the time (seconds since 1970) up to which records were reported before.
    // The trails that exist now get their first positions by setBaseline, which ends this state.
    std::optional<std::uint64_t> baselineTime();
    void setBaseline(const std::vector<TrailPosition>& trails);

    // A reader's question whether to give up. Called while the reader waits, and after wakeReaders.
    using Cancelled = std::function<bool()>;

    // Accepts a record of a trail: its event, if it has one, and the position behind the record. A reader may pass many
    // records without events in one call. Blocks while too much waits for the disk, or while the disk is full. Returns
    // false if the reader gave up; the record is not accepted then.
    bool accept(std::optional<Dictionary> event, const TrailPosition& after, const Cancelled& isCancelled);
    // Accepts a record of the live device, by the record's digest and time. Its frame is written at once.
    bool acceptFromDevice(Dictionary event, const std::string& digest, std::uint64_t time,
                          const Cancelled& isCancelled);
    // For a record of a trail: returns true if the device has brought an equal record that no record of a trail was
    // matched with so far, and matches the two. Equal records are counted, not gathered in a set. Call it just before
    // the record's `accept`: the match takes effect with it.
    bool takeDeviceRecord(const std::string& digest);
    // The trail is gone: drops its position.
    void forget(const TrailIdentity& trail);

    // Makes waiting readers ask again whether to give up.
    void wakeReaders();
    // Commits everything that was accepted before the call, and waits for it. Returns false if the disk refused.
    bool commitNow();

    // --- Delivery.

    struct Delivery {
        std::string name;
        // Empty: the batch is sent without a key.
        std::string key;
        std::shared_ptr<const std::string> body;
        std::size_t events = 0;
    };

    // Returns the first waiting batch that may be sent, and marks it as in flight. Returns nothing if none is ready;
    // then onWork's function is called as soon as one may be.
    std::optional<Delivery> take();
    // The server has confirmed the batch: it leaves the disk.
    void confirm(const std::string& name);
    // The batch was not delivered and waits again.
    void giveBack(const std::string& name);
    // The server refused this batch for its own sake, with that status. The batch is tried again after a wait of its
    // own, and given up after kRefusals over at least kRefusedFor.
    void refuse(const std::string& name, std::int64_t status);
    // The batch is too large for the server: two batches take its place. A single event counts as refused.
    void split(const std::string& name, std::int64_t status);

    enum class Retry : std::uint8_t {
        // The spool has no such batch.
        unknown,
        // The batch was not held back. Nothing has changed.
        waiting,
        // The batch was held back and is due now, under its key.
        due,
    };
    // An administrator asks for the next attempt at once.
    Retry retry(const std::string& name) EXCLUDES(mutex_);
    // Makes a file that is kept for the administrator a new batch, with a new name and a new key. Returns the name.
    // Only in the mode `on`.
    Result<std::string> sendAgain(const std::string& keptName) EXCLUDES(mutex_);

    struct Overview {
        // Absent if the file's size is unknown.
        std::optional<std::uint64_t> journalBytes;
        // The batches that the server has refused and that wait for another attempt, and the time of the next one.
        std::uint64_t refused = 0;
        std::optional<Clock::Monotonic> nextAttempt;
    };
    Overview overview() EXCLUDES(mutex_);

    // Sets the function that is called when `take` may have something. It runs on the journal's queue, without a lock.
    // An empty function ends the calls; a call in progress is waited for, unless it is on the calling thread.
    void onWork(std::function<void()> function);

  private:
    enum class Phase : std::uint8_t {
        // Its file is not written yet, or its key is not on disk yet.
        preparing,
        waiting,
        inFlight,
        // Its end is not on disk yet.
        ending,
    };
    // NOLINTBEGIN(readability-redundant-member-init): some members are left out on purpose
    struct Batch {
        Phase phase = Phase::preparing;
        // Empty until it is first sent. In force once the phase is `waiting`.
        std::string key = {};
        std::uint64_t events = 0;
        std::uint64_t size = 0;
        // Empty for a file that no entry of the journal names yet.
        std::string digest = {};
        std::uint64_t refusals = 0;
        std::int64_t firstRefused = 0;
        // Not to be sent earlier, because the server refused it.
        Clock::Monotonic notBefore = {};
    };
    // NOLINTEND(readability-redundant-member-init)
    // On the queue.
    bool isUsable(const Result<JournalRecovery>& recovery) const;
    void restore(std::optional<std::uint64_t> newBaseline) EXCLUDES(mutex_);
    std::vector<std::string> takeOver(const JournalState& state) EXCLUDES(mutex_);
    bool commit() EXCLUDES(mutex_);
    std::optional<Error> tryCommit() EXCLUDES(mutex_);
    std::uint64_t handOver() EXCLUDES(mutex_);
    void applyEffects() EXCLUDES(mutex_);
    void failed(const Error& error) EXCLUDES(mutex_);
    void succeeded() EXCLUDES(mutex_);
    bool isDrained() EXCLUDES(mutex_);
    void callWork();
    void giveUp(const std::string& name, const std::string& problem) EXCLUDES(mutex_);

    void adoptFiles() EXCLUDES(mutex_);
    bool waitForRoomLocked(MutexLock& lock, const Cancelled& isCancelled) REQUIRES(mutex_);
    void acceptLocked(std::optional<std::string> text, const TrailPosition& after,
                      const std::vector<std::string>& matched) REQUIRES(mutex_);
    void addEventLocked(std::string text, bool isFromDevice) REQUIRES(mutex_);
    void countEventLocked() REQUIRES(mutex_);
    void sealLocked(bool isSentNext) REQUIRES(mutex_);
    void startLocked(const std::string& name, Batch& batch) REQUIRES(mutex_);
    void requestLocked(Clock::Duration delay) REQUIRES(mutex_);
    void requestWriteLocked() REQUIRES(mutex_);
    std::optional<std::string> firstReadyLocked() REQUIRES(mutex_);
    void giveKeysLocked() REQUIRES(mutex_);
    std::string freeNameLocked() REQUIRES(mutex_);
    std::string partNameLocked(const std::string& whole) REQUIRES(mutex_);
    std::string addPartLocked(const std::string& whole, std::span<const Value> events) REQUIRES(mutex_);
    bool giveKeyLocked(const std::string& name, Batch& batch) REQUIRES(mutex_);
    std::optional<std::string> bodyOf(const std::string& name, const std::string& digest) EXCLUDES(mutex_);
    void adopt(const std::string& name) EXCLUDES(mutex_);
    void endLocked(const std::string& name, std::string keptAs, std::vector<journal::Entry>& with) REQUIRES(mutex_);
    void holdLocked(const std::string& name, Batch& batch, Clock::Duration wait) REQUIRES(mutex_);
    void workLater(Clock::Duration delay);
    void goBackLocked(const std::vector<TrailPosition>& from) REQUIRES(mutex_);
    std::string path(const std::string& name) const;
    std::string newKey();

    const Surroundings with_;
    const Hooks hooks_;
    Mode mode_ = Mode::on;
    std::string folder_;

    Mutex mutex_{LockRank::schedule};
    Condition roomChanged_;
    bool closed_ GUARDED_BY(mutex_) = false;
    // The disk refused the last write.
    bool stalled_ GUARDED_BY(mutex_) = false;

    // What the next commit writes.
    std::vector<journal::Entry> pending_ GUARDED_BY(mutex_);
    std::vector<journal::Entry> pendingEnds_ GUARDED_BY(mutex_);
    std::size_t pendingBytes_ GUARDED_BY(mutex_) = 0;
    std::set<TrailIdentity> moved_ GUARDED_BY(mutex_);
    // A commit, or a write without a flush, is queued; or the timer of a commit is set.
    bool commitQueued_ GUARDED_BY(mutex_) = false;
    bool writeQueued_ GUARDED_BY(mutex_) = false;
    bool timerSet_ GUARDED_BY(mutex_) = false;
    std::uint64_t timer_ GUARDED_BY(mutex_) = 0;

    std::map<TrailIdentity, TrailPosition> positions_ GUARDED_BY(mutex_);
    // Trails whose position went back since a reader last asked for it.
    std::set<TrailIdentity> wentBack_ GUARDED_BY(mutex_);
    std::optional<std::uint64_t> baseline_ GUARDED_BY(mutex_);
    std::map<std::string, std::int64_t> deviceRecords_ GUARDED_BY(mutex_);
    // Device records that takeDeviceRecord matched and `accept` has not accepted yet.
    std::vector<std::string> matched_ GUARDED_BY(mutex_);
    std::uint64_t newest_ GUARDED_BY(mutex_) = 0;

    // The open batch: the number of its events, when the first one came, and the trails that it has events of.
    std::uint64_t openCount_ GUARDED_BY(mutex_) = 0;
    Clock::Monotonic openBegan_ GUARDED_BY(mutex_);
    std::set<TrailIdentity> openTrails_ GUARDED_BY(mutex_);

    std::map<std::string, Batch> batches_ GUARDED_BY(mutex_);
    // The names of the waiting batches that may be sent, and of those that are held back for a while.
    std::set<std::string> ready_ GUARDED_BY(mutex_);
    std::set<std::string> held_ GUARDED_BY(mutex_);
    // The last `take` found nothing.
    bool isHungry_ GUARDED_BY(mutex_) = false;
    SpoolFileNames fileNames_ GUARDED_BY(mutex_);

    // Used only on the queue.
    JournalWriter writer_;
    // What the writer is still to be given, and effects still to be applied. Only an exception leaves something here.
    std::vector<journal::Entry> handedOver_;
    std::vector<journal::Entry> handedOverEnds_;
    JournalWriter::Effects effects_;
    Clock::Duration retryAfter_{};
    bool retryQueued_ = false;
    std::uint64_t toldNewest_ = 0;
    std::function<void()> onWork_;

    // Declared last, so that its thread ends before the other members are destroyed.
    DispatchQueue queue_;
};

}  // namespace sentrova
