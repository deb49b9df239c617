#include "control/EventReader.h"

#include "control/EventWriter.h"

#include <limits>
#include <utility>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

constexpr std::string_view kOlder = "older than the newest record read before it";
constexpr std::string_view kDamaged = "the record's content is damaged";

void addFault(std::string& faults, const std::string& fault) {
    faults += faults.empty() ? fault : "; " + fault;
}

}  // namespace

EventReader::EventReader(const EventChoice& choice, EventContext& context, Take take)
    : choice_(choice),
      selection_(choice.selection()),
      take_(std::move(take)),
      events_([this](std::uint16_t type, std::uint64_t seconds) { return isWanted(type, seconds); },
              [this](Dictionary event) {
                  if (choice_.keeps(event)) {
                      take_(std::move(event));
                  }
              },
              context, [this](RecordEvents::LeftOut record) { leaveOut(std::move(record)); }) {}

void EventReader::beginReader() {
    if (lastRead_ != std::numeric_limits<std::uint64_t>::max()) {
        ++lastRead_;
    }
}

bool EventReader::isWanted(std::uint16_t eventType, std::uint64_t seconds) {
    const bool isSelected = selection_.contains(eventType);
    const bool isNew = skipped_.empty() && seconds >= lastRead_;
    if (isNew) {
        // For a type that is not selected, too.
        lastRead_ = seconds;
    } else if (isSelected) {
        tellExcluded(eventType, seconds, skipped_.empty() ? kOlder : skipped_);
    }
    return isSelected && isNew;
}

void EventReader::leaveOut(RecordEvents::LeftOut record) {
    if (!record.exclusion.reason.empty()) {
        tellExcluded(*record.eventType, record.seconds, record.exclusion.reason, std::move(record.exclusion.keys));
        return;
    }
    if (record.eventType && !selection_.contains(*record.eventType)) {
        return;
    }
    if (damaged_++ == 0) {
        firstDamaged_ = offset_;
    }
    if (record.eventType) {
        tellExcluded(*record.eventType, record.seconds, kDamaged);
    }
}

void EventReader::tellExcluded(std::uint16_t eventType, std::uint64_t seconds, std::string_view reason,
                               Dictionary event) {
    if (!choice_.excluded) {
        return;
    }
    event.set("record_event", eventType);
    event.set("record_time", seconds);
    event.set(EventWriter::kExcluded, reason);
    if (choice_.keeps(event)) {
        take_(std::move(event));
    }
}

EventReader::Outcome EventReader::read(bsm::ByteSource& source, const std::atomic<bool>& isEnded) {
    bsm::RecordReader reader(source);
    Outcome outcome;
    damaged_ = 0;
    while (!isEnded.load(std::memory_order_relaxed)) {
        offset_ = reader.position();
        const auto length = reader.au_read_rec();
        if (length < 0) {
            break;
        }
        if (length > 0) {
            events_.read(reader.record());
        } else {
            addFault(outcome.faults,
                     fmt::format("the record at offset {} is skipped, because its {} bytes are above "
                                 "the limit of {}",
                                 reader.position(), reader.skippedLength(), bsm::RecordReader::kMaximumRecordLength));
        }
    }
    if (damaged_ > 0) {
        addFault(outcome.faults, damaged_ == 1
                                     ? fmt::format("the content of the record at offset {} is damaged", firstDamaged_)
                                     : fmt::format("the content of {} records is damaged, the first at offset {}",
                                                   damaged_, firstDamaged_));
    }
    outcome.position = reader.position();
    outcome.end = reader.end();
    if (outcome.end == bsm::RecordReader::End::kGarbage) {
        addFault(outcome.faults, fmt::format("the data at offset {} is not an audit record", outcome.position));
    } else if (outcome.end == bsm::RecordReader::End::kTruncatedRecord) {
        addFault(outcome.faults, fmt::format("the record at offset {} is cut off", outcome.position));
    }
    return outcome;
}

void EventReader::readSkipped(bsm::ByteSource& source, const std::atomic<bool>& isEnded, std::string_view reason) {
    skipped_ = reason;
    read(source, isEnded);
    skipped_ = {};
}

}  // namespace sentrova::control
