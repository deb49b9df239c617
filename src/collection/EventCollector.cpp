#include "collection/EventCollector.h"

#include "collection/AuditCheck.h"
#include "collection/LastRead.h"
#include "collection/bsm/TokenReader.h"
#include "core/FileUtils.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "core/Utilities.h"
#include "forwarding/EventQueueGCD.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/Current.h"
#include "foundation/run/NotificationCenter.h"
#include "foundation/value/Text.h"
#include "platform/SystemPath.h"

namespace sentrova {

namespace {

constexpr LogSource kLog("EventCollector");
constexpr LogSource kProgress = kLog.in(LogCategory::Event);

constexpr std::string_view kCurrentTrail = "/var/audit/current";

// Copies a text of a record, because the event stores it. Absent if it is not UTF-8.
std::optional<std::string> stored(std::string_view text) {
    return isValidUtf8(text) ? std::optional(std::string(text)) : std::nullopt;
}

Event eventOf(const bsm::HeaderToken& header) {
    Event event;
    event.version = header.version;
    event.eventType = header.eventType;
    event.eventModifier = header.eventModifier;
    event.timeStampInMs = header.seconds;
    return event;
}

void setSubject(const bsm::SubjectToken& token, Event& event) {
    event.auditId = token.auditId;
    event.effectiveUserID = token.effectiveUserId;
    event.effectiveGroupID = token.effectiveGroupId;
    event.realUserID = token.realUserId;
    event.realGroupID = token.realGroupId;
    event.processID = token.processId;
    event.SessionID = token.sessionId;
    event.port = token.port;
    event.addr = token.address;
}

}  // namespace

EventCollector::EventCollector(const std::string& path, const std::optional<std::vector<std::string>>& eventsToRead)
    : ConcurrentOperationAbstract("EventCollector"), path_(path), eventsToRead_(eventsToRead) {
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
            ++counts_.records;
            readRecord(reader.record());
        }
    } catch (const std::exception& exception) {
        kLog.error("{}", exception.what());
    }
    logEnd(reader, source);
}

void EventCollector::readRecord(std::span<const std::uint8_t> record) {
    bsm::TokenReader tokens(record);
    // The header and event of the record being read. The event is only created once the record is known to be wanted,
    // because few are. Each record is judged once: an admitted record stays admitted even if another reader moves the
    // time forward meanwhile.
    std::optional<bsm::HeaderToken> header;
    std::optional<Event> event;
    while (tokens.left() > 0 && tokens.au_fetch_tok() == 0) {
        if (header && !event && !shouldProcessRecord(header->eventType, header->seconds)) {
            return;
        }
        const auto& token = tokens.token();
        if (const auto* begun = std::get_if<bsm::HeaderToken>(&token.content)) {
            header = *begun;
            event.reset();
        } else if (header) {
            if (!event) {
                event = eventOf(*header);
            }
            handleToken(token, *event);
            if (token.id == bsm::TokenId::kTrailer) {
                header.reset();
            }
        }
    }
}

void EventCollector::handleToken(const bsm::Token& token, Event& event) {
    if (const auto* subject = std::get_if<bsm::SubjectToken>(&token.content)) {
        setSubject(*subject, event);
    } else if (const auto* result = std::get_if<bsm::Return32Token>(&token.content)) {
        event.ret = result->value;
        event.status = result->status;
    } else if (const auto* text = std::get_if<bsm::TextToken>(&token.content)) {
        event.text = stored(text->text);
    } else if (const auto* identity = std::get_if<bsm::IdentityToken>(&token.content)) {
        event.signing_id = stored(identity->signingId);
    } else if (std::holds_alternative<bsm::TrailerToken>(token.content)) {
        deliver(event);
    }
}

void EventCollector::deliver(Event& event) {
    if (auto dictionary = event.parsedEvent()) {
        EventQueueGCD::enqueue(*std::move(dictionary));
        ++counts_.events;
    } else {
        if (LogSource::isWritten(LogLevel::Info)) {
            kLog.info("Error/Exclusion in {}", event.description());
        }
        ++counts_.excluded;
    }
}

void EventCollector::logEnd(const bsm::RecordReader& reader, const AuditSource& source) const {
    kProgress.info("{} ended: {} records read, {} events collected, {} excluded", path_, counts_.records,
                   counts_.events, counts_.excluded);
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
