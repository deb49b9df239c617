#include "forwarding/EventQueueGCD.h"

#include "core/LogSource.h"
#include "forwarding/Spool.h"
#include "foundation/run/Current.h"

#include <utility>

namespace sentrova {

namespace {
constexpr LogSource kLog("EventQueueGCD");
constexpr char kIdentity = 0;
}  // namespace

const void* EventQueueGCD::identity() {
    return &kIdentity;
}

void EventQueueGCD::init() {
    Current<Spool>::get().open();
    kLog.debug("EventQueueGCD init Finished");
}

void EventQueueGCD::enqueue(Dictionary event) {
    Current<Spool>::get().enqueue(std::move(event));
}

std::optional<std::string> EventQueueGCD::dequeue(const std::optional<FileUrl>& file) {
    return Current<Spool>::get().dequeue(file);
}

void EventQueueGCD::announceFiles() {
    Current<Spool>::get().announceFiles();
}

void EventQueueGCD::announceAgain(const FileUrl& file) {
    Current<Spool>::get().announceAgain(file);
}

std::size_t EventQueueGCD::length() {
    return Current<Spool>::get().length();
}

std::size_t EventQueueGCD::lengthAtEnd() {
    const auto* const spool = Current<Spool>::orNull();
    return spool ? spool->lengthAtEnd() : 0;
}

}  // namespace sentrova
