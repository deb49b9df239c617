#include "collection/EventCollector.h"

#include "collection/AuditCheck.h"
#include "collection/LastRead.h"
#include "core/FileUtils.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "core/Utilities.h"
#include "forwarding/EventQueueGCD.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/Current.h"
#include "foundation/run/NotificationCenter.h"
#include "platform/SystemPath.h"

#include <utility>

namespace sentrova {

namespace {

constexpr LogSource kLog("EventCollector");
constexpr LogSource kProgress = kLog.in(LogCategory::Event);

constexpr std::string_view kCurrentTrail = "/var/audit/current";

}  // namespace

EventCollector::EventCollector(const std::string& path, const std::optional<std::vector<std::string>>& eventsToRead)
    : ConcurrentOperationAbstract("EventCollector"),
      path_(path),
      eventsToRead_(eventsToRead),
      events_(
          [this](std::uint16_t type, std::uint64_t time) {
              count_.noteTime(time);
              return shouldProcessRecord(type, time);
          },
          [](Dictionary event) { EventQueueGCD::enqueue(std::move(event)); }),
      count_(Current<Statistics>::get(), path == AuditSource::kPipe ? ReadingCount::kDevice : ReadingCount::kTrail) {
    kLog.debug("EventCollector Init called");
    Current<LastRead>::get().begin();
    auto source = initAuditFile(path);
    if (!source) {
        kLog.error("auditfile is null going to cancel");
        EventCollector::cancel();
        return;
    }
    {
        MutexLock lock(mutex_);
        auditFile_ = std::move(source);
    }
    // Records of the last-read second have been read already, by whichever collector delivered them.
    Current<LastRead>::get().moveOnBySecond();
}

std::shared_ptr<AuditSource> EventCollector::initAuditFile(const std::string& path) const {
    try {
        std::shared_ptr<AuditSource> source;
        try {
            source = AuditSource::open(path);
        } catch (const AuditSourceError& error) {
            if (error.name() == "FileNotOpen") {
                kLog.error("failed to open audit pipe {}", path);
            }
            throw;
        }
        if (path == AuditSource::kPipe) {
            return source;
        }
        kLog.debug("Going to check {}", path);
        if (path != kCurrentTrail && shouldReadFile(path)) {
            return source;
        }
        kLog.info("Skipping file {}", path);
    } catch (const AuditSourceError& error) {
        kLog.error("{} {}", error.name(), error.what());
        if (path == AuditSource::kPipe) {
            AuditCheck::logFailedOpening(error.systemReason());
        } else {
            kLog.error("{}", error.systemReason());
        }
    } catch (const std::exception& exception) {
        kLog.error("{} {}", path, exception.what());
    }
    return nullptr;
}

bool EventCollector::shouldReadFile(const std::string& path) {
    const auto attributes = FileUtils::getFileAttributes(path);
    const auto* modified = attributes ? (*attributes)[FileUtils::kModificationDate].date() : nullptr;
    const auto lastRead = dateFromEpoch(static_cast<double>(LastTimeStamp()));
    kLog.info("fileLastModified={},lasteventread={}", modified ? Value(*modified) : Value(), Value(lastRead));
    return !modified || lastRead <= *modified;
}

std::uint64_t EventCollector::LastTimeStamp() {
    auto& lastRead = Current<LastRead>::get();
    lastRead.begin();
    return lastRead.time();
}

bool EventCollector::shouldProcessRecord(std::uint16_t eventType, std::uint64_t withTimeStamp) const {
    // The time also moves forward for a type that is not collected. A cancelled reader does not move it, so a newer
    // record is left to the next reader.
    return Current<LastRead>::get().admit(withTimeStamp, !isCancelled()) && eventsToRead_.contains(eventType);
}

void EventCollector::start() {
    kLog.error("Eventcollector start called");
    if (!canStart()) {
        return;
    }
    started();
    readEvents();
}

std::shared_ptr<AuditSource> EventCollector::auditFile() const {
    MutexLock lock(mutex_);
    return auditFile_;
}

void EventCollector::readEvents() {
    kLog.info("Eventcollector readEvents called");
    kProgress.info("Eventcollecor reading events from {}", GlobalVariables::getInstance().timeStampOfLastEvent());
    try {
        // A second reference, so that a cancel from another thread does not close the source during a read.
        if (const auto source = auditFile()) {
            readRecords(*source);
        }
        updateTime();
        kProgress.info("Events read upto {}", Utilities::getTimeFromEpoch(
                                                  GlobalVariables::getInstance().timeStampOfLastEvent().doubleValue()));
    } catch (const std::exception& exception) {
        kLog.error("{}", exception.what());
    }
    complete();
}

void EventCollector::readRecords(AuditSource& source) {
    bsm::RecordReader reader(source);
    const bool isDevice = path_ == AuditSource::kPipe;
    if (isDevice) {
        Current<Statistics>::get().setDeviceOpen(true);
    }
    try {
        while (canStart()) {
            const auto length = reader.au_read_rec();
            if (length < 0) {
                break;
            }
            if (length == 0) {
                kLog.error("A record of {} bytes at offset {} of {} is skipped; the limit is {} bytes",
                           reader.skippedLength(), reader.position(), path_, bsm::RecordReader::kMaximumRecordLength);
                continue;
            }
            ++records_;
            events_.read(reader.record());
            count_.update({.records = records_, .collected = events_.events(), .excluded = events_.excluded()});
            if (isDevice) {
                noteDrops(source);
            }
        }
    } catch (const std::exception& exception) {
        kLog.error("{}", exception.what());
    }
    count_.publish();
    if (isDevice) {
        Current<Statistics>::get().setDeviceOpen(false);
    }
    logEnd(reader, source);
}

void EventCollector::noteDrops(AuditSource& source) {
    if (const auto drops = source.drops()) {
        // The device's count wraps.
        Current<Statistics>::get().addDrops(static_cast<std::uint32_t>(*drops - std::exchange(knownDrops_, *drops)));
    }
}

void EventCollector::logEnd(const bsm::RecordReader& reader, const AuditSource& source) const {
    kProgress.info("{} ended: {} records read, {} events collected, {} excluded", path_, records_, events_.events(),
                   events_.excluded());
    using End = bsm::RecordReader::End;
    const auto end = reader.end();
    if (end == End::kReadError && !isCancelled()) {
        kLog.error("Reading {} failed after {} bytes: {}", path_, reader.position(),
                   posixError(source.problem()).description);
    } else if (end == End::kGarbage || end == End::kTruncatedRecord) {
        const auto size = Current<FileSystem>::get().status(platform::systemPath(path_));
        const auto unread = size && size->isRegular && size->size >= reader.position() ? size->size - reader.position()
                                                                                       : reader.leftUnread();
        kLog.error("{} bytes of {} are left unread: the data at offset {} is {}", unread, path_, reader.position(),
                   end == End::kGarbage ? "not an audit record" : "a truncated record");
    }
}

void EventCollector::cancel() {
    kLog.error("EventCollector cancel called");
    cancelOperation();
    complete();
}

void EventCollector::complete() {
    std::shared_ptr<AuditSource> source;
    {
        MutexLock lock(mutex_);
        source = std::move(auditFile_);
    }
    if (source) {
        source->interrupt();
    }
    completeOperation();
}

void EventCollector::updateTime() {
    NotificationCenter::defaultCenter().post({EventQueueGCD::kTimeUpdateNotification, this, {}});
}

}  // namespace sentrova
