#include "collection/DurableCollection.h"

#include "collection/EventSelection.h"
#include "collection/RecordEvents.h"
#include "core/LogSource.h"
#include "forwarding/RecordDigest.h"
#include "foundation/run/Current.h"
#include "foundation/run/Unhandled.h"

#include <utility>
#include <vector>

namespace sentrova {

namespace {

constexpr LogSource kLog("DurableCollection");

}  // namespace

// Held by the one pass that runs.
class DurableCollection::PassTurn {
  public:
    // Waits for the turn. Without one if the call is cancelled meanwhile.
    PassTurn(DurableCollection& collection, const Cancelled& isCancelled) : collection_(collection) {
        MutexLock lock(collection_.mutex_);
        while (collection_.isPassing_ && !isCancelled()) {
            collection_.changed_.wait(lock);
        }
        isHeld_ = !isCancelled();
        collection_.isPassing_ = collection_.isPassing_ || isHeld_;
    }
    ~PassTurn() {
        if (isHeld_) {
            MutexLock lock(collection_.mutex_);
            collection_.isPassing_ = false;
            collection_.changed_.notifyAll();
        }
    }
    PassTurn(const PassTurn&) = delete;
    PassTurn& operator=(const PassTurn&) = delete;

    bool isHeld() const { return isHeld_; }

  private:
    DurableCollection& collection_;
    bool isHeld_ = false;
};

// Held by the one thread that reads the device.
class DurableCollection::LiveTurn {
  public:
    // Waits until a cancelled holder has ended. Without the turn if there is a holder that is not cancelled, or if the
    // call is cancelled meanwhile. The argument must outlive the turn.
    LiveTurn(DurableCollection& collection, const Cancelled& isCancelled) : collection_(collection) {
        MutexLock lock(collection_.mutex_);
        while (collection_.live_ && (*collection_.live_)() && !isCancelled()) {
            collection_.changed_.wait(lock);
        }
        isHeld_ = !collection_.live_ && !isCancelled();
        if (isHeld_) {
            collection_.live_ = &isCancelled;
        }
    }
    ~LiveTurn() {
        if (isHeld_) {
            setDevice(nullptr);
            // Before the next holder opens the device.
            device_.reset();
            MutexLock lock(collection_.mutex_);
            collection_.live_ = nullptr;
            collection_.changed_.notifyAll();
        }
    }
    LiveTurn(const LiveTurn&) = delete;
    LiveTurn& operator=(const LiveTurn&) = delete;

    bool isHeld() const { return isHeld_; }
    DeviceReader& openDevice(const EventSelection& selection) {
        auto& device =
            device_.emplace(selection, collection_.clock_, collection_.cryptography_, collection_.statistics_);
        setDevice(&device);
        return device;
    }

  private:
    void setDevice(DeviceReader* device) {
        MutexLock lock(collection_.mutex_);
        collection_.device_ = device;
    }

    DurableCollection& collection_;
    bool isHeld_ = false;
    std::optional<DeviceReader> device_;
};

DurableCollection::DurableCollection(DurableSpool& spool, GlobalVariables& configuration, FileSystem& files,
                                     Clock& clock, const Cryptography& cryptography, Statistics& statistics)
    : spool_(spool),
      configuration_(configuration),
      files_(files),
      clock_(clock),
      cryptography_(cryptography),
      statistics_(statistics),
      folder_(files),
      passes_("com.kelvark.vantorix.trailqueue", clock) {
    limit_ = configuration.observe(GlobalVariables::kMaxEventDataSizeReached, [this](const KeyValueChange& change) {
        if (change.oldValue.boolValue() && !change.newValue.boolValue()) {
            passSoon();
        }
    });
}

void DurableCollection::passSoon() {
    MutexLock lock(mutex_);
    if (device_) {
        device_->note();
        return;
    }
    lock.unlock();
    passes_.async([this] { pass([] { return false; }); });
}

DurableCollection* DurableCollection::inForce() {
    auto* const collection = Current<DurableCollection>::orNull();
    return collection && collection->spool_.mode() == DurableSpool::Mode::on ? collection : nullptr;
}

bool DurableCollection::finish(const Cancelled& isCancelled) {
    if (!spool_.isCollecting()) {
        return true;
    }
    if (!pass(isCancelled)) {
        return false;
    }
    spool_.endCollection();
    return true;
}

bool DurableCollection::pass(const Cancelled& isCancelled) {
    const Cancelled ends = [&] { return isClosed_ || isCancelled(); };
    const PassTurn turn(*this, ends);
    return turn.isHeld() && TrailPass({.spool = spool_,
                                       .configuration = configuration_,
                                       .files = files_,
                                       .cryptography = cryptography_,
                                       .memory = memory_,
                                       .recent = recent_,
                                       .statistics = statistics_},
                                      ends)
                                .run();
}

bool DurableCollection::isLive() {
    MutexLock lock(mutex_);
    return live_ && !(*live_)();
}

bool DurableCollection::live(const Cancelled& isCancelled) {
    const Cancelled ends = [&] { return isClosed_ || isCancelled(); };
    LiveTurn turn(*this, ends);
    if (!turn.isHeld()) {
        return ends();
    }
    // Before the device is opened: a pass that is under way may read a record that the device brings too.
    recent_.begin();
    readLive(turn.openDevice(EventSelection(EventSelection::split(configuration_.eventsToRead()))), ends);
    recent_.end();
    return true;
}

void DurableCollection::readLive(DeviceReader& device, const Cancelled& isCancelled) {
    std::optional<Clock::Monotonic> due;
    while (!isCancelled()) {
        const auto records = device.wait(due);
        const auto passBegan = clock_.monotonicTime();
        due.reset();
        runGuarded("realtime collection", [&] {
            // At the spool's limit, `passSoon` ends the next wait.
            if (pass(isCancelled)) {
                due = settle(device, records, passBegan, isCancelled);
            }
        });
    }
    // The queue ends with the call. What no trail holds is accepted, as far as the spool has room at once.
    device.end();
    if (!configuration_.maxEventDataSizeReached() && !folder_.isWritten()) {
        settle(device, device.queued(), clock_.monotonicTime(), [] { return true; });
    }
}

// Takes the records that were queued when the pass began. Returns when the oldest one that waits for its copy in a
// trail is due.
std::optional<Clock::Monotonic> DurableCollection::settle(DeviceReader& device, std::size_t records,
                                                          Clock::Monotonic passBegan, const Cancelled& isCancelled) {
    const bool isWritten = folder_.isWritten();
    if (const auto drops = device.takeDrops(); drops > 0 && !isWritten) {
        kLog.error("The audit device has dropped {} records, and no trail is being written: they are lost", drops);
    }
    for (; records > 0; --records) {
        const auto& record = device.front();
        if (!recent_.take(record.digest)) {
            if (const auto due = record.arrived + kCopyAwaited; isWritten && passBegan < due) {
                return due;
            }
            if (!acceptFromDevice(record, isCancelled)) {
                return std::nullopt;
            }
        }
        device.pop();
    }
    return std::nullopt;
}

bool DurableCollection::acceptFromDevice(const DeviceReader::Record& record, const Cancelled& isCancelled) {
    std::uint64_t time = 0;
    std::vector<Dictionary> events;
    RecordEvents maker(
        [&](std::uint16_t, std::uint64_t seconds) {
            time = seconds;
            return true;
        },
        [&](Dictionary event) { events.push_back(std::move(event)); });
    maker.read(record.bytes);
    // A damaged record may have several events. Only the first one stands for the record in a trail.
    auto digest = record.digest;
    for (auto& event : events) {
        if (!spool_.acceptFromDevice(std::move(event), digest, time, isCancelled)) {
            return false;
        }
        digest = digestOf(digest, cryptography_);
    }
    statistics_.addReading({.records = 1, .collected = events.size(), .excluded = maker.excluded()},
                           static_cast<Statistics::Seconds>(time));
    return true;
}

void DurableCollection::wake() {
    {
        MutexLock lock(mutex_);
        changed_.notifyAll();
        if (device_) {
            device_->note();
        }
    }
    spool_.wakeReaders();
}

void DurableCollection::end() {
    isClosed_ = true;
    wake();
    const auto timer = clock_.after(kEndAwaited, [this] {
        MutexLock lock(mutex_);
        isEndLate_ = true;
        changed_.notifyAll();
    });
    MutexLock lock(mutex_);
    while ((isPassing_ || live_) && !isEndLate_) {
        changed_.wait(lock);
    }
    lock.unlock();
    if (clock_.cancel(timer)) {
        return;
    }
    lock.lock();
    while (!isEndLate_) {
        changed_.wait(lock);
    }
}

void DurableCollection::close() {
    isClosed_ = true;
    wake();
    passes_.close();
}

}  // namespace sentrova
