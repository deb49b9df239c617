#include "forwarding/DurableSpool.h"

#include "core/LogSource.h"
#include "forwarding/RecordDigest.h"
#include "forwarding/SpoolFile.h"
#include "foundation/formats/Json.h"
#include "foundation/run/Unhandled.h"
#include "foundation/value/Text.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <new>
#include <utility>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("DurableSpool");

constexpr std::chrono::seconds kCommitAfter{1};
// A batch that is not full is sent when its oldest event has waited that long.
constexpr std::chrono::seconds kSealAfter{10};
constexpr std::chrono::seconds kFirstRetry{1};
constexpr std::chrono::seconds kLongestRetry{30};
// After a shortage of descriptors or memory.
constexpr std::chrono::seconds kReadAgain{10};
// Keys are given to that many batches at a time, so that one flush serves them all.
constexpr int kKeysAtOnce = 8;
// What an event costs in memory besides its text.
constexpr std::size_t kEventOverhead = 128;
// The wait before a refused batch is sent again: doubles with each refusal.
constexpr std::chrono::minutes kFirstRefusedWait{5};
constexpr std::chrono::hours kLongestRefusedWait{6};

Clock::Duration refusedWait(std::uint64_t refusals) {
    const auto doublings = std::min<std::uint64_t>(refusals > 0 ? refusals - 1 : 0, 16);
    return std::min<Clock::Duration>(kFirstRefusedWait * (1ULL << doublings), kLongestRefusedWait);
}

template <class Hook, class... Arguments>
void callHook(const Hook& hook, Arguments... arguments) {
    if (hook) {
        runGuarded("DurableSpool", [&] { hook(arguments...); });
    }
}

// Names of files come from the disk and may be any bytes.
TrailPosition withReadableName(TrailPosition position) {
    if (!isValidUtf8(position.name)) {
        position.name = excerpt(position.name);
    }
    return position;
}

}  // namespace

DurableSpool::DurableSpool(const Surroundings& with, Hooks hooks)
    : with_(with),
      hooks_(std::move(hooks)),
      fileNames_(with.files, with.clock, with.dates),
      writer_(with.files, with.cryptography),
      queue_("com.kelvark.vantorix.journalqueue", with.clock) {}

DurableSpool::~DurableSpool() {
    queue_.close();
}

std::string DurableSpool::path(const std::string& name) const {
    return folder_ + "/" + name;
}

// --- The start.

bool DurableSpool::open(Mode mode, std::uint64_t reportedUpTo) {
    bool isOpen = false;
    queue_.sync([&] {
        mode_ = mode;
        folder_ = with_.configuration.eventDataPath();
        const auto recovery = writer_.open(folder_);
        isOpen = isUsable(recovery);
        if (isOpen) {
            const bool isNew = recovery->outcome == JournalRecovery::Outcome::nothing;
            restore(isNew ? std::optional(reportedUpTo) : std::nullopt);
            commit();
        }
    });
    return isOpen;
}

bool DurableSpool::isUsable(const Result<JournalRecovery>& recovery) const {
    if (!recovery) {
        kLog.error("The journal of the spool cannot be read, so that events are not stored durably: {}",
                   recovery.error().description);
        return false;
    }
    using Outcome = JournalRecovery::Outcome;
    if (recovery->outcome == Outcome::unknownVersion) {
        kLog.error(
            "The journal of the spool was written by another version of the agent; it is left as it is, and "
            "events are not stored durably");
        return false;
    }
    for (const auto& problem : recovery->problems) {
        kLog.error("{}", problem);
    }
    for (const auto& note : recovery->notes) {
        kLog.info("{}", note);
    }
    return recovery->outcome != Outcome::nothing || mode_ == Mode::on;
}

void DurableSpool::restore(std::optional<std::uint64_t> newBaseline) {
    const auto& state = writer_.state();
    for (const auto& name : takeOver(state)) {
        giveUp(name, "is missing or altered");
    }
    if (mode_ == Mode::on) {
        adoptFiles();
    }
    MutexLock lock(mutex_);
    if (newBaseline) {
        baseline_ = newBaseline;
        pending_.emplace_back(journal::BaselineSet{newBaseline});
    }
    if (mode_ == Mode::ending && openCount_ > 0) {
        sealLocked(false);
    }
}

// Makes the state in memory that of the files. Returns the batches whose events are neither in a file nor in the
// journal.
std::vector<std::string> DurableSpool::takeOver(const JournalState& state) {
    std::vector<std::string> lost;
    MutexLock lock(mutex_);
    positions_ = state.positions();
    baseline_ = state.baseline();
    for (const auto& [digest, record] : state.deviceRecords()) {
        deviceRecords_[digest] = record.count;
    }
    for (const auto& [trail, position] : positions_) {
        newest_ = std::max(newest_, position.time);
    }
    openCount_ = state.openEvents().size();
    openBegan_ = with_.clock.monotonicTime() - kSealAfter;
    for (const auto& position : state.openFrom()) {
        openTrails_.insert(position.trail);
    }
    for (const auto& [name, known] : state.batches()) {
        batches_[name] = {.phase = Phase::preparing,
                          .key = known.key,
                          .events = known.events,
                          .size = known.size,
                          .digest = known.digest,
                          .refusals = known.refusals,
                          .firstRefused = known.firstRefused};
        if (writer_.isUnwritten(name)) {
            continue;
        }
        const auto status = with_.files.status(path(name));
        if (status && status->size == known.size) {
            batches_[name].phase = Phase::waiting;
            ready_.insert(name);
        } else {
            lost.push_back(name);
        }
    }
    return lost;
}

// Files that no entry of the journal names: from the time before the mode was switched on, or put there by somebody.
void DurableSpool::adoptFiles() {
    const auto names = with_.files.ownNames(folder_);
    if (!names) {
        kLog.error("The files of the spool are not listed: {}", names.error().description);
        return;
    }
    MutexLock lock(mutex_);
    for (const auto& name : *names) {
        if (!name.starts_with(SpoolFileNames::kPrefix)) {
            continue;
        }
        if (!isValidUtf8(name)) {
            // The journal could not name it.
            kLog.error("The file {} is not sent: its name is not UTF-8", excerpt(path(name)));
        } else if (!writer_.state().ended().contains(name) &&
                   batches_.try_emplace(name, Batch{.phase = Phase::waiting}).second) {
            ready_.insert(name);
        }
    }
}

void DurableSpool::close() {
    {
        MutexLock lock(mutex_);
        closed_ = true;
        roomChanged_.notifyAll();
    }
    queue_.close();
    commitNow();
}

bool DurableSpool::owns(const std::string& name) {
    MutexLock lock(mutex_);
    return batches_.contains(name);
}

bool DurableSpool::isCollecting() {
    MutexLock lock(mutex_);
    return mode_ == Mode::on || !positions_.empty() || baseline_;
}

void DurableSpool::endCollection() {
    {
        MutexLock lock(mutex_);
        for (const auto& [trail, position] : positions_) {
            pending_.emplace_back(journal::TrailForgotten{trail});
        }
        positions_.clear();
        moved_.clear();
        if (baseline_) {
            baseline_.reset();
            pending_.emplace_back(journal::BaselineSet{});
        }
        if (openCount_ > 0) {
            sealLocked(false);
        }
    }
    commitNow();
}

// --- Collection.

std::vector<TrailPosition> DurableSpool::positions() {
    MutexLock lock(mutex_);
    wentBack_.clear();
    std::vector<TrailPosition> positions;
    positions.reserve(positions_.size());
    for (const auto& [trail, position] : positions_) {
        positions.push_back(position);
    }
    return positions;
}

std::optional<std::uint64_t> DurableSpool::baselineTime() {
    MutexLock lock(mutex_);
    return baseline_;
}

void DurableSpool::setBaseline(const std::vector<TrailPosition>& trails) {
    {
        MutexLock lock(mutex_);
        for (const auto& trail : trails) {
            positions_.insert_or_assign(trail.trail, withReadableName(trail));
            moved_.insert(trail.trail);
        }
        baseline_.reset();
        pending_.emplace_back(journal::BaselineSet{});
    }
    commitNow();
}

bool DurableSpool::waitForRoomLocked(MutexLock& lock, const Cancelled& isCancelled) {
    while ((stalled_ || pendingBytes_ > kMostPending) && !closed_) {
        if (isCancelled()) {
            return false;
        }
        // A batch that is larger than the limit never becomes full while its reader waits.
        if (!stalled_) {
            requestLocked({});
        }
        roomChanged_.wait(lock);
    }
    return !closed_;
}

bool DurableSpool::accept(std::optional<Dictionary> event, const TrailPosition& after, const Cancelled& isCancelled) {
    std::optional<std::string> text;
    if (event) {
        const Value value(*std::move(event));
        text = Json::write(value).optional();
        if (!text) {
            kLog.error("Invalid json {}", value);
        }
    }
    const bool hasEvent = text.has_value();
    MutexLock lock(mutex_);
    const auto matched = std::exchange(matched_, {});
    const bool isBehind = wentBack_.contains(after.trail);
    if (isBehind || !waitForRoomLocked(lock, isCancelled)) {
        for (const auto& digest : matched) {
            ++deviceRecords_[digest];
        }
        return false;
    }
    const auto pendingBefore = pending_.size();
    const bool isJoining = text && !openTrails_.contains(after.trail);
    try {
        acceptLocked(std::move(text), after, matched);
    } catch (...) {
        // The record is not accepted, so nothing of it may stay.
        pending_.erase(pending_.begin() + static_cast<std::ptrdiff_t>(pendingBefore), pending_.end());
        if (isJoining) {
            openTrails_.erase(after.trail);
        }
        for (const auto& digest : matched) {
            ++deviceRecords_[digest];
        }
        throw;
    }
    newest_ = std::max(newest_, after.time);
    if (hasEvent) {
        countEventLocked();
    }
    requestLocked(kCommitAfter);
    return true;
}

void DurableSpool::acceptLocked(std::optional<std::string> text, const TrailPosition& after,
                                const std::vector<std::string>& matched) {
    for (const auto& digest : matched) {
        pending_.emplace_back(journal::DeviceRecordCounted{digest, -1, after.time});
    }
    if (text && openTrails_.insert(after.trail).second) {
        const auto before = positions_.find(after.trail);
        auto position =
            before == positions_.end() ? TrailPosition{.trail = after.trail, .name = after.name} : before->second;
        pending_.emplace_back(journal::TrailJoined{withReadableName(std::move(position))});
    }
    auto position = withReadableName(after);
    auto& present =
        positions_.try_emplace(after.trail, TrailPosition{.trail = after.trail, .name = position.name}).first->second;
    moved_.insert(after.trail);
    if (text) {
        addEventLocked(*std::move(text), false);
    }
    // Needs no memory: an event never comes without its position.
    present = std::move(position);
}

bool DurableSpool::acceptFromDevice(Dictionary event, const std::string& digest, std::uint64_t time,
                                    const Cancelled& isCancelled) {
    const Value value(std::move(event));
    auto text = Json::write(value);
    if (!text) {
        kLog.error("Invalid json {}", value);
    }
    MutexLock lock(mutex_);
    if (!waitForRoomLocked(lock, isCancelled)) {
        return false;
    }
    if (text) {
        addEventLocked(*std::move(text), true);
        countEventLocked();
    }
    ++deviceRecords_[digest];
    pending_.emplace_back(journal::DeviceRecordCounted{digest, 1, time});
    newest_ = std::max(newest_, time);
    requestWriteLocked();
    requestLocked(kCommitAfter);
    return true;
}

bool DurableSpool::takeDeviceRecord(const std::string& digest) {
    MutexLock lock(mutex_);
    const auto found = deviceRecords_.find(digest);
    if (found == deviceRecords_.end()) {
        return false;
    }
    if (--found->second <= 0) {
        deviceRecords_.erase(found);
    }
    matched_.push_back(digest);
    return true;
}

void DurableSpool::forget(const TrailIdentity& trail) {
    MutexLock lock(mutex_);
    if (positions_.erase(trail) > 0) {
        moved_.erase(trail);
        pending_.emplace_back(journal::TrailForgotten{trail});
        requestLocked(kCommitAfter);
    }
}

void DurableSpool::wakeReaders() {
    MutexLock lock(mutex_);
    roomChanged_.notifyAll();
}

bool DurableSpool::commitNow() {
    bool done = false;
    queue_.sync([this, &done] { done = commit(); });
    return done;
}

void DurableSpool::addEventLocked(std::string text, bool isFromDevice) {
    const auto size = text.size() + kEventOverhead;
    pending_.emplace_back(journal::EventAccepted{std::move(text), isFromDevice});
    pendingBytes_ += size;
}

void DurableSpool::countEventLocked() {
    if (openCount_++ == 0) {
        openBegan_ = with_.clock.monotonicTime();
        workLater(kSealAfter);
    }
    const auto limit = std::max<std::int64_t>(with_.configuration.noOfEventsPerRequest(), 1);
    if (openCount_ >= static_cast<std::uint64_t>(limit)) {
        sealLocked(isHungry_);
    }
}

// The open batch gets a name, and a key too if the forwarder waits for a batch: one flush then serves both.
void DurableSpool::sealLocked(bool isSentNext) {
    const auto name = freeNameLocked();
    auto& batch = batches_[name];
    try {
        pending_.emplace_back(journal::BatchSealed{.batch = {.name = name, .events = openCount_}, .body = {}});
    } catch (...) {
        batches_.erase(name);
        throw;
    }
    batch.events = std::exchange(openCount_, 0);
    openTrails_.clear();
    if (isSentNext) {
        giveKeyLocked(name, batch);
    }
    requestLocked({});
}

bool DurableSpool::giveKeyLocked(const std::string& name, Batch& batch) {
    if (mode_ == Mode::ending || !batch.key.empty()) {
        return false;
    }
    auto key = newKey();
    if (key.empty()) {
        return false;
    }
    pending_.emplace_back(journal::KeyGiven{name, key});
    batch.key = std::move(key);
    return true;
}

// A random UUID; empty if the generator fails.
std::string DurableSpool::newKey() {
    constexpr std::size_t kBytes = 16;
    auto bytes = with_.cryptography.randomBytes(kBytes);
    if (!bytes || bytes->size() != kBytes) {
        kLog.error("The random generator fails, so that a batch gets no key; it is sent later");
        return "";
    }
    (*bytes)[6] = static_cast<std::uint8_t>(((*bytes)[6] & 0x0F) | 0x40);
    (*bytes)[8] = static_cast<std::uint8_t>(((*bytes)[8] & 0x3F) | 0x80);
    std::string key;
    for (std::size_t i = 0; i < kBytes; ++i) {
        key += i == 4 || i == 6 || i == 8 || i == 10 ? "-" : "";
        key += fmt::format("{:02x}", (*bytes)[i]);
    }
    return key;
}

// --- The timing of commits.

void DurableSpool::requestLocked(Clock::Duration delay) {
    if (commitQueued_) {
        return;
    }
    if (delay == Clock::Duration::zero()) {
        queue_.async([this] { commit(); });
        commitQueued_ = true;
    } else if (!timerSet_) {
        queue_.after(delay, [this, timer = ++timer_] {
            MutexLock lock(mutex_);
            const bool isCurrent = timer == timer_;
            lock.unlock();
            if (isCurrent) {
                commit();
            }
        });
        timerSet_ = true;
    }
}

void DurableSpool::requestWriteLocked() {
    if (!writeQueued_) {
        queue_.async([this] {
            {
                MutexLock lock(mutex_);
                writeQueued_ = false;
            }
            handOver();
            if (const auto error = writer_.write()) {
                failed(*error);
            }
        });
        writeQueued_ = true;
    }
}

void DurableSpool::workLater(Clock::Duration delay) {
    queue_.after(delay, [this] { callWork(); });
}

void DurableSpool::callWork() {
    callHook(onWork_);
}

DurableSpool::Overview DurableSpool::overview() {
    Overview overview;
    if (const auto file = with_.files.status(path(std::string(Journal::kJournalName)))) {
        overview.journalBytes = file->size;
    }
    const MutexLock lock(mutex_);
    for (const auto& [name, batch] : batches_) {
        if (batch.refusals > 0 && batch.phase == Phase::waiting) {
            ++overview.refused;
            overview.nextAttempt = std::min(overview.nextAttempt.value_or(batch.notBefore), batch.notBefore);
        }
    }
    return overview;
}

void DurableSpool::onWork(std::function<void()> function) {
    if (queue_.isCurrent()) {
        onWork_ = std::move(function);
    } else {
        queue_.sync([this, &function] { std::swap(onWork_, function); });
    }
}

// --- Commits, on the queue.

bool DurableSpool::commit() {
    std::optional<Error> error;
    try {
        error = tryCommit();
    } catch (const std::bad_alloc&) {
        error = posixError(ENOMEM);
    } catch (const std::exception& exception) {
        error = Error{.domain = kPosixErrorDomain, .code = EIO, .description = exception.what()};
    }
    if (error) {
        failed(*error);
    } else {
        succeeded();
    }
    if (mode_ == Mode::ending && !error && isDrained()) {
        const auto removed = writer_.remove();
        if (!removed) {
            kLog.error("The journal of the spool is not removed: {}", removed.error().description);
        }
    }
    callWork();
    return !error;
}

std::optional<Error> DurableSpool::tryCommit() {
    {
        MutexLock lock(mutex_);
        commitQueued_ = false;
        timerSet_ = false;
        ++timer_;
    }
    const auto newest = handOver();
    writer_.commit(effects_);
    const bool isComplete = effects_.isComplete;
    auto error = effects_.error;
    applyEffects();
    if (isComplete && newest > toldNewest_) {
        toldNewest_ = newest;
        callHook(hooks_.flushed, newest);
    }
    return error;
}

// Hands everything that is pending to the writer. Returns the newest time of the records in it. Positions in memory
// have moved past these entries, so an exception must not drop any: what it leaves is handed over the next time.
std::uint64_t DurableSpool::handOver() {
    writer_.add(handedOver_, handedOverEnds_);
    std::uint64_t newest = 0;
    {
        MutexLock lock(mutex_);
        for (const auto& trail : moved_) {
            pending_.emplace_back(journal::PositionMoved{positions_.at(trail)});
        }
        moved_.clear();
        handedOver_.swap(pending_);
        handedOverEnds_.swap(pendingEnds_);
        pendingBytes_ = 0;
        newest = newest_;
        roomChanged_.notifyAll();
    }
    if (!handedOver_.empty()) {
        callHook(hooks_.beforeWrite);
    }
    writer_.add(handedOver_, handedOverEnds_);
    return newest;
}

// Each step may be repeated after an exception.
void DurableSpool::applyEffects() {
    MutexLock lock(mutex_);
    for (const auto& sealed : effects_.sealed) {
        if (const auto batch = batches_.find(sealed.name); batch != batches_.end()) {
            batch->second.size = sealed.size;
            batch->second.digest = sealed.digest;
            startLocked(sealed.name, batch->second);
        }
    }
    for (const auto& name : effects_.keyed) {
        const auto batch = batches_.find(name);
        // A key of a batch whose file is not written yet comes into force with the file.
        if (batch != batches_.end() && !batch->second.digest.empty()) {
            startLocked(name, batch->second);
        }
    }
    for (const auto& name : effects_.gone) {
        batches_.erase(name);
    }
    for (const auto& name : effects_.stuck) {
        if (const auto batch = batches_.find(name); batch != batches_.end()) {
            // Under the same key, so that the server recognises the repetition.
            pending_.emplace_back(journal::BatchKnown{{.name = name,
                                                       .events = batch->second.events,
                                                       .size = batch->second.size,
                                                       .digest = batch->second.digest,
                                                       .key = batch->second.key}});
            requestLocked(kCommitAfter);
        }
    }
    if (effects_.madeRoom && stalled_) {
        requestLocked({});
    }
    effects_ = {};
}

void DurableSpool::startLocked(const std::string& name, Batch& batch) {
    if (batch.phase == Phase::preparing) {
        ready_.insert(name);
        batch.phase = Phase::waiting;
    }
}

bool DurableSpool::isDrained() {
    MutexLock lock(mutex_);
    return positions_.empty() && !baseline_ && batches_.empty() && openCount_ == 0 && pending_.empty() &&
           pendingEnds_.empty();
}

void DurableSpool::failed(const Error& error) {
    if (!retryQueued_) {
        retryAfter_ = std::clamp<Clock::Duration>(2 * retryAfter_, kFirstRetry, kLongestRetry);
        queue_.after(retryAfter_, [this] {
            retryQueued_ = false;
            commit();
        });
        retryQueued_ = true;
    }
    MutexLock lock(mutex_);
    if (!std::exchange(stalled_, true)) {
        lock.unlock();
        kLog.error("Events cannot be stored in {}; reading waits until the disk takes them: {}", folder_,
                   error.description);
    }
}

void DurableSpool::succeeded() {
    retryAfter_ = {};
    MutexLock lock(mutex_);
    roomChanged_.notifyAll();
    if (std::exchange(stalled_, false)) {
        lock.unlock();
        kLog.info("Events are stored in {} again", folder_);
    }
}

// --- Delivery.

std::optional<std::string> DurableSpool::firstReadyLocked() {
    const auto now = with_.clock.monotonicTime();
    for (auto name = held_.begin(); name != held_.end();) {
        if (batches_.at(*name).notBefore <= now) {
            ready_.insert(*name);
            name = held_.erase(name);
        } else {
            ++name;
        }
    }
    if (ready_.empty()) {
        return std::nullopt;
    }
    // An earlier batch that is just getting its file or its key comes first, unless the disk keeps it from that.
    const auto isPreparing = [](const auto& one) { return one.second.phase == Phase::preparing; };
    const auto end = batches_.find(*ready_.begin());
    return !stalled_ && std::any_of(batches_.begin(), end, isPreparing) ? std::nullopt : std::optional(end->first);
}

std::optional<DurableSpool::Delivery> DurableSpool::take() {
    for (;;) {
        MutexLock lock(mutex_);
        const auto name = closed_ ? std::nullopt : firstReadyLocked();
        if (!name) {
            const bool isOld = openCount_ > 0 && with_.clock.monotonicTime() - openBegan_ >= kSealAfter;
            if (isOld && !closed_) {
                sealLocked(true);
            }
            isHungry_ = true;
            return std::nullopt;
        }
        isHungry_ = false;
        auto& batch = batches_.at(*name);
        if (batch.digest.empty()) {
            ready_.erase(*name);
            batch.phase = Phase::inFlight;
            lock.unlock();
            try {
                adopt(*name);
            } catch (...) {
                giveBack(*name);
                throw;
            }
            continue;
        }
        if (batch.key.empty() && mode_ == Mode::on) {
            giveKeysLocked();
            isHungry_ = true;
            return std::nullopt;
        }
        ready_.erase(*name);
        batch.phase = Phase::inFlight;
        Delivery delivery = {.name = *name, .key = batch.key, .body = nullptr, .events = batch.events};
        const auto digest = batch.digest;
        lock.unlock();
        kLog.info("Going to read from file {}", path(*name));
        try {
            if (auto body = bodyOf(*name, digest)) {
                delivery.body = std::make_shared<const std::string>(*std::move(body));
                return delivery;
            }
        } catch (...) {
            giveBack(*name);
            throw;
        }
    }
}

void DurableSpool::giveKeysLocked() {
    int given = 0;
    for (auto name = ready_.begin(); name != ready_.end() && given < kKeysAtOnce;) {
        auto& batch = batches_.at(*name);
        if (!batch.digest.empty() && giveKeyLocked(*name, batch)) {
            batch.phase = Phase::preparing;
            name = ready_.erase(name);
            ++given;
        } else {
            ++name;
        }
    }
    if (given > 0) {
        requestLocked({});
    } else {
        workLater(kReadAgain);
    }
}

// A file without an entry: it gets one, with its key, before it is first sent.
void DurableSpool::adopt(const std::string& name) {
    const auto content = with_.files.readText(path(name));
    MutexLock lock(mutex_);
    const auto found = batches_.find(name);
    if (found == batches_.end()) {
        return;
    }
    auto& batch = found->second;
    if (!content && SpoolFile::isShortage(content.error())) {
        batch.phase = Phase::waiting;
        holdLocked(name, batch, kReadAgain);
        return;
    }
    if (!content || !SpoolFile::looksLikeBatch(*content)) {
        batches_.erase(found);
        lock.unlock();
        if (content) {
            kLog.error("The file {} is not a batch of events; it stays in the spool and is not sent", path(name));
        } else {
            kLog.error("The spooled file cannot be read: {}", content.error().description);
        }
        return;
    }
    batch.size = content->size();
    batch.digest = digestOf(*content, with_.cryptography);
    pending_.emplace_back(journal::BatchKnown{{.name = name, .events = 0, .size = batch.size, .digest = batch.digest}});
    batch.phase = Phase::preparing;
    if (!giveKeyLocked(name, batch)) {
        startLocked(name, batch);
    }
    requestLocked({});
}

// The content of a batch's file, if it is what was written. Otherwise the journal may still have it.
std::optional<std::string> DurableSpool::bodyOf(const std::string& name, const std::string& digest) {
    auto content = with_.files.readText(path(name));
    if (content && digestOf(*content, with_.cryptography) == digest) {
        return *std::move(content);
    }
    if (!content && SpoolFile::isShortage(content.error())) {
        kLog.error("The spooled file cannot be read: {}", content.error().description);
        MutexLock lock(mutex_);
        auto& batch = batches_.at(name);
        batch.phase = Phase::waiting;
        holdLocked(name, batch, kReadAgain);
        return std::nullopt;
    }
    std::optional<std::string> body;
    queue_.sync([&] {
        body = writer_.rebuild(name, digest);
        if (!body) {
            giveUp(name, content ? "is altered" : "cannot be read: " + content.error().description);
        }
    });
    return body;
}

// The events of the batch are lost to the spool: the trails are read again from where the batch began. The altered file
// stays in the folder under another name.
void DurableSpool::giveUp(const std::string& name, const std::string& problem) {
    const auto known = writer_.state().batches().find(name);
    const auto from = known == writer_.state().batches().end() ? std::vector<TrailPosition>() : known->second.from;
    MutexLock lock(mutex_);
    const auto events = batches_.at(name).events;
    goBackLocked(from);
    endLocked(name, std::string(kAlteredPrefix) + name, pending_);
    lock.unlock();
    if (from.empty()) {
        kLog.error("The file {} {}; its {} events are lost, unless the file kept beside it has them", path(name),
                   problem, events);
        return;
    }
    for (const auto& position : from) {
        kLog.error("The file {} {}; the trail {} is read again from offset {}, so that events behind it may come twice",
                   path(name), problem, position.name, position.offset);
    }
    callHook(hooks_.wentBack);
}

void DurableSpool::goBackLocked(const std::vector<TrailPosition>& from) {
    for (const auto& position : from) {
        const auto present = positions_.find(position.trail);
        if (present != positions_.end() && position.offset < present->second.offset) {
            present->second = position;
            moved_.insert(position.trail);
            wentBack_.insert(position.trail);
        }
    }
}

void DurableSpool::endLocked(const std::string& name, std::string keptAs, std::vector<journal::Entry>& with) {
    ready_.erase(name);
    held_.erase(name);
    with.emplace_back(journal::BatchEnded{name, std::move(keptAs)});
    batches_.at(name).phase = Phase::ending;
    requestLocked(stalled_ ? Clock::Duration::zero() : kCommitAfter);
}

void DurableSpool::confirm(const std::string& name) {
    MutexLock lock(mutex_);
    if (batches_.contains(name)) {
        endLocked(name, "", pendingEnds_);
    }
}

void DurableSpool::giveBack(const std::string& name) {
    MutexLock lock(mutex_);
    const auto batch = batches_.find(name);
    if (batch != batches_.end() && batch->second.phase == Phase::inFlight) {
        ready_.insert(name);
        batch->second.phase = Phase::waiting;
    }
}

void DurableSpool::holdLocked(const std::string& name, Batch& batch, Clock::Duration wait) {
    batch.notBefore = with_.clock.monotonicTime() + wait;
    held_.insert(name);
    workLater(wait);
}

void DurableSpool::refuse(const std::string& name, std::int64_t status) {
    const auto now = with_.clock.epochSeconds();
    MutexLock lock(mutex_);
    const auto found = batches_.find(name);
    if (found == batches_.end()) {
        return;
    }
    auto& batch = found->second;
    batch.firstRefused = batch.refusals == 0 ? now : batch.firstRefused;
    ++batch.refusals;
    const auto refusals = batch.refusals;
    if (refusals >= kRefusals && now - batch.firstRefused >= kRefusedFor) {
        auto keptAs = std::string(kRefusedPrefix) + name.substr(SpoolFileNames::kPrefix.size());
        endLocked(name, keptAs, pendingEnds_);
        lock.unlock();
        kLog.error(
            "The server refused the batch {} {} times, the last time with HTTP status {}; it is kept as {} and "
            "not sent again",
            path(name), refusals, status, keptAs);
        return;
    }
    pending_.emplace_back(journal::BatchRefused{name, refusals, batch.firstRefused, status});
    requestLocked(kCommitAfter);
    batch.phase = Phase::waiting;
    holdLocked(name, batch, refusedWait(refusals));
}

void DurableSpool::split(const std::string& name, std::int64_t status) {
    const auto content = with_.files.readText(path(name));
    const auto parsed = content ? Json::parse(*content, {content->size(), 512}) : Result<Value>(content.error());
    const auto* const events = parsed ? parsed->array() : nullptr;
    if (!events || events->size() < 2) {
        refuse(name, status);
        return;
    }
    const std::span<const Value> all(*events);
    const auto half = all.size() / 2;
    MutexLock lock(mutex_);
    const auto found = batches_.find(name);
    if (found == batches_.end()) {
        return;
    }
    const auto pendingBefore = pending_.size();
    std::vector<std::string> parts;
    try {
        parts.reserve(2);
        parts.push_back(addPartLocked(name, all.first(half)));
        parts.push_back(addPartLocked(name, all.subspan(half)));
        endLocked(name, "", pending_);
    } catch (...) {
        pending_.erase(pending_.begin() + static_cast<std::ptrdiff_t>(pendingBefore), pending_.end());
        for (const auto& part : parts) {
            batches_.erase(part);
        }
        found->second.phase = Phase::waiting;
        ready_.insert(name);
        throw;
    }
    requestLocked({});
}

DurableSpool::Retry DurableSpool::retry(const std::string& name) {
    MutexLock lock(mutex_);
    const auto found = batches_.find(name);
    if (found == batches_.end() || found->second.phase == Phase::ending) {
        return Retry::unknown;
    }
    if (!held_.contains(name)) {
        return Retry::waiting;
    }
    ready_.insert(name);
    held_.erase(name);
    found->second.notBefore = with_.clock.monotonicTime();
    queue_.async([this] { callWork(); });
    return Retry::due;
}

// If the agent is killed on the way, the file has one of the two names, and the next start adopts the new one.
Result<std::string> DurableSpool::sendAgain(const std::string& keptName) {
    std::string name;
    queue_.sync([&] {
        MutexLock lock(mutex_);
        // The file of a name that has ended would be deleted at the next start.
        do {
            name = freeNameLocked();
        } while (writer_.state().ended().contains(name));
        // Reserves the name; nobody else touches a batch in flight.
        batches_[name] = {.phase = Phase::inFlight};
    });
    const auto moved = with_.files.move(path(keptName), path(name));
    if (moved) {
        // The journal must not name a file that a loss of power takes back to its former name.
        if (const auto flushed = with_.files.flushFile(path(name)); !flushed) {
            kLog.error("{}", flushed.error().description);
        }
    }
    MutexLock lock(mutex_);
    if (!moved) {
        batches_.erase(name);
        return moved.error();
    }
    ready_.insert(name);
    batches_.at(name).phase = Phase::waiting;
    queue_.async([this] { callWork(); });
    return name;
}

// Everything about a split is in one frame: the parts, their events and keys, and the end of the whole.
std::string DurableSpool::addPartLocked(const std::string& whole, std::span<const Value> events) {
    std::vector<JournalState::OpenEvent> texts;
    for (const auto& event : events) {
        texts.push_back({*Json::write(event), false});
        pendingBytes_ += texts.back().text.size() + kEventOverhead;
        pending_.emplace_back(journal::PartEvent{texts.back().text});
    }
    const auto body = JournalState::bodyOf(texts);
    auto name = partNameLocked(whole);
    Batch batch = {.key = newKey(), .events = events.size()};
    pending_.emplace_back(journal::PartSealed{.batch = {.name = name,
                                                        .events = batch.events,
                                                        .size = body.size(),
                                                        .digest = digestOf(body, with_.cryptography),
                                                        .key = batch.key},
                                              .whole = whole});
    batches_.emplace(name, std::move(batch));
    return name;
}

std::string DurableSpool::freeNameLocked() {
    auto name = fileNames_.next(folder_);
    while (batches_.contains(name)) {
        name = fileNames_.next(folder_);
    }
    return name;
}

// A free name in the milliseconds after the batch, so that its parts are sent in its place; any free name if there is
// none.
std::string DurableSpool::partNameLocked(const std::string& whole) {
    constexpr std::size_t kDigits = 3;
    constexpr int kMilliseconds = 1000;
    const auto second = whole.substr(0, whole.size() - std::min(whole.size(), kDigits));
    const auto own = leadingReal(whole.substr(second.size()));
    for (int ms = own >= 0 && own < kMilliseconds ? static_cast<int>(own) + 1 : kMilliseconds; ms < kMilliseconds;
         ++ms) {
        auto name = fmt::format("{}{:03}", second, ms);
        if (!batches_.contains(name) && !with_.files.exists(path(name))) {
            return name;
        }
    }
    return freeNameLocked();
}

}  // namespace sentrova
