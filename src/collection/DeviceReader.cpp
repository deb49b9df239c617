#include "collection/DeviceReader.h"

#include "collection/AuditCheck.h"
#include "collection/bsm/TokenReader.h"
#include "core/LogSource.h"
#include "forwarding/RecordDigest.h"
#include "foundation/run/Threads.h"
#include "foundation/run/Unhandled.h"

#include <utility>
#include <variant>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("DeviceReader");

}  // namespace

class DeviceReader::WatchedSource final : public bsm::ByteSource {
  public:
    WatchedSource(AuditSource& source, DeviceReader& reader) : source_(source), reader_(reader) {}

    std::ptrdiff_t read(std::span<std::uint8_t> into) override {
        const auto got = source_.read(into);
        if (got > 0) {
            reader_.noteDrops(source_);
        }
        return got;
    }

  private:
    AuditSource& source_;
    DeviceReader& reader_;
};

DeviceReader::DeviceReader(const EventSelection& selection, Clock& clock, const Cryptography& cryptography,
                           Statistics& statistics)
    : selection_(selection),
      clock_(clock),
      cryptography_(cryptography),
      statistics_(statistics),
      backoff_(cryptography) {
    thread_ = startThread([this] { run(); });
}

void DeviceReader::State::note() {
    MutexLock lock(mutex);
    hasNews = true;
    changed.notifyAll();
}

void DeviceReader::note() {
    state_->note();
}

void DeviceReader::end() {
    std::shared_ptr<AuditSource> source;
    {
        MutexLock lock(state_->mutex);
        state_->hasEnded = true;
        source = state_->source;
        state_->changed.notifyAll();
    }
    if (source) {
        source->interrupt();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
}

std::size_t DeviceReader::wait(std::optional<Clock::Monotonic> due) {
    const auto timer = due ? std::optional(clock_.schedule(*due, [state = state_] { state->note(); })) : std::nullopt;
    MutexLock lock(state_->mutex);
    while (!state_->hasNews) {
        state_->changed.wait(lock);
    }
    state_->hasNews = false;
    const auto queued = state_->records.size();
    lock.unlock();
    if (timer) {
        clock_.cancel(*timer);
    }
    return queued;
}

std::size_t DeviceReader::queued() {
    MutexLock lock(state_->mutex);
    return state_->records.size();
}

const DeviceReader::Record& DeviceReader::front() {
    MutexLock lock(state_->mutex);
    return state_->records.front();
}

void DeviceReader::pop() {
    MutexLock lock(state_->mutex);
    state_->bytes -= state_->records.front().bytes.size();
    state_->records.pop_front();
    state_->changed.notifyAll();
}

std::uint64_t DeviceReader::takeDrops() {
    MutexLock lock(state_->mutex);
    return std::exchange(state_->drops, 0);
}

void DeviceReader::run() {
    do {
        runGuarded("audit device", [this] { readDevice(); });
    } while (waitForRetry());
}

void DeviceReader::readDevice() {
    const auto source = open();
    if (source) {
        MutexLock lock(state_->mutex);
        if (state_->hasEnded) {
            return;
        }
        state_->source = source;
    }
    // Records that came while the device was closed are in the trails.
    note();
    if (source) {
        knownDrops_ = 0;
        statistics_.setDeviceOpen(true);
        readRecords(*source);
        statistics_.setDeviceOpen(false);
        MutexLock lock(state_->mutex);
        state_->source.reset();
    }
}

std::shared_ptr<AuditSource> DeviceReader::open() {
    try {
        return AuditSource::open(AuditSource::kPipe);
    } catch (const AuditSourceError& error) {
        if (isNews(error.name() + error.systemReason())) {
            if (error.name() == "FileNotOpen") {
                kLog.error("failed to open audit pipe {}", AuditSource::kPipe);
            }
            kLog.error("{} {}", error.name(), error.what());
            AuditCheck::logFailedOpening(error.systemReason());
        }
        return nullptr;
    }
}

void DeviceReader::readRecords(AuditSource& source) {
    WatchedSource watched(source, *this);
    bsm::RecordReader reader(watched);
    for (;;) {
        const auto length = reader.au_read_rec();
        if (length < 0) {
            break;
        }
        if (length == 0) {
            kLog.error("A record of {} bytes at offset {} of {} is skipped; the limit is {} bytes",
                       reader.skippedLength(), reader.position(), AuditSource::kPipe,
                       bsm::RecordReader::kMaximumRecordLength);
        } else if (!keep(reader.record())) {
            return;
        }
    }
    logEnd(reader, source.problem());
}

void DeviceReader::logEnd(const bsm::RecordReader& reader, int problem) {
    using End = bsm::RecordReader::End;
    std::string text;
    if (reader.end() == End::kReadError) {
        text = fmt::format("Reading {} failed after {} bytes: {}", AuditSource::kPipe, reader.position(),
                           posixError(problem).description);
    } else if (reader.end() == End::kEndOfData) {
        text = fmt::format("{} has ended after {} bytes", AuditSource::kPipe, reader.position());
    } else {
        text = fmt::format("{} bytes of {} are left unread: the data at offset {} is {}", reader.leftUnread(),
                           AuditSource::kPipe, reader.position(),
                           reader.end() == End::kGarbage ? "not an audit record" : "a truncated record");
    }
    if (!hasEnded() && isNews(text)) {
        kLog.error("{}", text);
    }
}

bool DeviceReader::hasEnded() {
    MutexLock lock(state_->mutex);
    return state_->hasEnded;
}

// A fault that persists is logged once, however often the device is opened.
bool DeviceReader::isNews(const std::string& fault) {
    return std::exchange(told_, fault) != fault;
}

// Queues the record if its type is selected. Blocks while the queue is full. Returns false if the reader has ended.
bool DeviceReader::keep(std::span<const std::uint8_t> record) {
    backoff_.reset();
    told_.clear();
    bsm::TokenReader tokens(record);
    const auto* const header =
        tokens.au_fetch_tok() == 0 ? std::get_if<bsm::HeaderToken>(&tokens.token().content) : nullptr;
    Record kept;
    if (header && selection_.contains(header->eventType)) {
        kept = {.bytes = Data(record.begin(), record.end()),
                .digest = digestOf(record, cryptography_),
                .arrived = clock_.monotonicTime()};
    }
    MutexLock lock(state_->mutex);
    // A single record always fits into an empty queue.
    while (!state_->hasEnded && state_->bytes > 0 && state_->bytes + kept.bytes.size() > kMostBytes) {
        state_->changed.wait(lock);
    }
    if (!kept.bytes.empty()) {
        state_->bytes += kept.bytes.size();
        state_->records.push_back(std::move(kept));
    }
    state_->hasNews = true;
    state_->changed.notifyAll();
    return !state_->hasEnded;
}

void DeviceReader::noteDrops(AuditSource& source) {
    const auto drops = source.drops();
    if (!drops) {
        return;
    }
    // The device's count wraps.
    const auto more = static_cast<std::uint32_t>(*drops - std::exchange(knownDrops_, *drops));
    if (more > 0) {
        statistics_.addDrops(more);
        MutexLock lock(state_->mutex);
        state_->drops += more;
        state_->hasNews = true;
        state_->changed.notifyAll();
    }
}

// Returns false if the reader has ended.
bool DeviceReader::waitForRetry() {
    {
        MutexLock lock(state_->mutex);
        state_->isRetryDue = false;
    }
    const auto timer = clock_.after(backoff_.next(), [state = state_] {
        MutexLock lock(state->mutex);
        state->isRetryDue = true;
        state->changed.notifyAll();
    });
    MutexLock lock(state_->mutex);
    while (!state_->isRetryDue && !state_->hasEnded) {
        state_->changed.wait(lock);
    }
    const bool goesOn = !state_->hasEnded;
    lock.unlock();
    clock_.cancel(timer);
    return goesOn;
}

}  // namespace sentrova
