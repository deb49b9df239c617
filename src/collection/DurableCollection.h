// Collection in the durable mode: reads the trails from their exact positions, and the live audit device.
//
// The device and the trail that the system is writing hold the same records. The trails are the source, because their
// positions survive everything; the device tells that something came. Only where no trail is written, or a record does
// not reach the trails in time, is the device's own copy the event. Copies are matched by digest and counted, so that
// equal records stay several events.

#pragma once

#include "collection/DeviceReader.h"
#include "collection/RecentRecords.h"
#include "collection/TrailFolder.h"
#include "collection/TrailPass.h"
#include "core/GlobalVariables.h"
#include "forwarding/DurableSpool.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/Clock.h"
#include "foundation/run/DispatchQueue.h"
#include "foundation/run/Mutex.h"
#include "foundation/run/Subscription.h"
#include "foundation/value/Cryptography.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <optional>

namespace sentrova {

// Published as the Current one while the mode is on, or while something that it left is to be read. Safe from any
// thread.
class DurableCollection {
  public:
    using Cancelled = DurableSpool::Cancelled;

    // How long a record of the device is waited for in the trails, if the system is writing one.
    static constexpr std::chrono::seconds kCopyAwaited{2};
    static constexpr std::chrono::milliseconds kEndAwaited{500};

    // All arguments must outlive the object.
    DurableCollection(DurableSpool& spool, GlobalVariables& configuration, FileSystem& files, Clock& clock,
                      const Cryptography& cryptography, Statistics& statistics);
    ~DurableCollection() { close(); }
    DurableCollection(const DurableCollection&) = delete;
    DurableCollection& operator=(const DurableCollection&) = delete;

    // The Current one while the mode is on; null otherwise.
    static DurableCollection* inForce();
    // After the mode was switched off: reads all trails from their positions to their ends, once, and drops the
    // positions. Does nothing the next time. Returns false if that ended early.
    bool finish(const Cancelled& isCancelled) EXCLUDES(mutex_);

    // Reads all trails from their positions to their ends, on the calling thread. Passes run one at a time; a second
    // caller waits and then makes its own. Returns false if the pass ended early: it was cancelled, the agent is
    // disabled, or the spool has reached its size limit.
    bool pass(const Cancelled& isCancelled) EXCLUDES(mutex_);

    // Reads the live device and the trails on the calling thread until it is cancelled. At the spool's size limit it
    // waits. Returns false at once if another thread is already reading.
    bool live(const Cancelled& isCancelled) EXCLUDES(mutex_);
    // Whether a thread is in `live` and not cancelled.
    bool isLive() EXCLUDES(mutex_);

    // Makes all calls above ask again whether they are cancelled. They ask under a lock too, so the answer must take
    // none.
    void wake() EXCLUDES(mutex_);
    // Has a pass made soon: by the thread in `live`, or else on a thread of the object. For what another caller held
    // back: the spool was full, or took a position back.
    void passSoon() EXCLUDES(mutex_);
    // Cancels all calls, and waits for them, but at most kEndAwaited. What the device has brought and no trail holds is
    // in the spool then.
    void end() EXCLUDES(mutex_);
    // Cancels all calls and ends the object's thread.
    void close() EXCLUDES(mutex_);

  private:
    class PassTurn;
    class LiveTurn;

    void readLive(DeviceReader& device, const Cancelled& isCancelled);
    std::optional<Clock::Monotonic> settle(DeviceReader& device, std::size_t records, Clock::Monotonic passBegan,
                                           const Cancelled& isCancelled);
    bool acceptFromDevice(const DeviceReader::Record& record, const Cancelled& isCancelled);

    DurableSpool& spool_;
    GlobalVariables& configuration_;
    FileSystem& files_;
    Clock& clock_;
    const Cryptography& cryptography_;
    Statistics& statistics_;
    TrailFolder folder_;
    std::atomic<bool> isClosed_ = false;
    // The records that passes read from the trails, for the device's copies.
    RecentRecords recent_;
    // Used only by the pass that runs.
    TrailMemory memory_;

    Mutex mutex_{LockRank::owner};
    Condition changed_;
    bool isPassing_ GUARDED_BY(mutex_) = false;
    bool isEndLate_ GUARDED_BY(mutex_) = false;
    // The call of `live` that reads, and its device.
    const Cancelled* live_ GUARDED_BY(mutex_) = nullptr;
    DeviceReader* device_ GUARDED_BY(mutex_) = nullptr;

    // Runs the passes after the spool has fallen below its limit.
    DispatchQueue passes_;
    Subscription limit_;
};

}  // namespace sentrova
