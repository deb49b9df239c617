#include "forwarding/EventForwarder.h"

#include "core/FileUtils.h"
#include "core/LogSource.h"
#include "forwarding/DeliveryLog.h"
#include "forwarding/EventQueueGCD.h"
#include "forwarding/Spool.h"
#include "forwarding/SpoolFile.h"
#include "forwarding/TransportEngine.h"
#include "foundation/files/FileSystem.h"
#include "foundation/formats/Json.h"
#include "foundation/run/Current.h"
#include "foundation/run/Unhandled.h"

namespace sentrova {

namespace {

constexpr LogSource kLog("EventForwarder");

// Returns the events of a batch to the spool, in their order. If the data turns out not to be a batch, it is written to
// a file, because its original file has been deleted.
void putBack(const std::string& data) {
    auto parsed = Json::parse(data, {data.size(), 512});
    auto* const events = parsed ? parsed->array() : nullptr;
    if (!events) {
        Current<Spool>::get().keepUndelivered(data);
        return;
    }
    for (auto& event : *events) {
        if (auto* const dictionary = event.dictionary()) {
            EventQueueGCD::enqueue(std::move(*dictionary));
        } else {
            kLog.error("An undelivered batch has an entry that is not an event: {}", event);
        }
    }
}

// The completion of a delivery. Runs on the session's delegate queue.
void finishDelivery(TransportEngine& engine, const std::string& sent, const std::optional<Data>& data,
                    const std::optional<UrlResponse>& response, const std::optional<Error>& error) {
    if (DeliveryLog::answered(data, response) == 200 && !error) {
        TransportEngine::setIsConnected(true);
        DeliveryLog::succeeded(data);
        return;
    }
    DeliveryLog::failed(engine, response, error);
    // An exception here must not keep the events from returning to the spool.
    runGuarded("EventForwarder", [&engine] {
        TransportEngine::setIsConnected(false);
        engine.tryOtherURL();
    });
    putBack(sent);
}

}  // namespace

EventForwarder::Slot EventForwarder::Slots::take() {
    MutexLock lock(mutex_);
    while (taken_ >= kDeliveriesInFlight && !closed_) {
        changed_.wait(lock);
    }
    if (closed_) {
        return nullptr;
    }
    ++taken_;
    return Slot(this, [self = shared_from_this()](void*) { self->release(); });
}

void EventForwarder::Slots::release() {
    MutexLock lock(mutex_);
    --taken_;
    changed_.notifyAll();
}

void EventForwarder::Slots::close() {
    MutexLock lock(mutex_);
    closed_ = true;
    changed_.notifyAll();
}

EventForwarder::EventForwarder(NotificationCenter& notifications, Clock& clock)
    : ConcurrentOperationAbstract("EventForwarder"), notifications_(notifications), opQueue_(1, clock) {
    kLog.debug("EventForwarder Init called");
}

std::shared_ptr<EventForwarder> EventForwarder::init() {
    // NOLINTNEXTLINE: the constructor is private
    return std::shared_ptr<EventForwarder>(
        new EventForwarder(Current<NotificationCenter>::get(), Current<Clock>::get()));
}

void EventForwarder::start() {
    kLog.debug("EventForwarder start called");
    if (!canStart()) {
        return;
    }
    started();
    kLog.debug("EventForwarder start observing queue");
    const auto observe = [this](const char* name, void (EventForwarder::*handler)(const Notification&)) {
        auto subscription =
            notifications_.addObserver(name, [weak = weak_from_this(), handler](const Notification& notification) {
                if (const auto self = weak.lock()) {
                    (self.get()->*handler)(notification);
                }
            });
        MutexLock lock(observersMutex_);
        observers_.push_back(std::move(subscription));
    };
    observe(EventQueueGCD::kEventFileNotification, &EventForwarder::gotFilesToProcess);
    observe(EventQueueGCD::kEventForwardNotification, &EventForwarder::gotEventsToProcess);

    EventQueueGCD::announceFiles();
}

void EventForwarder::gotFilesToProcess(const Notification& notification) {
    kLog.debug("Received file created notification");
    const auto* text = notification.userInfo[EventQueueGCD::kFileUrl].string();
    const auto file = text ? FileUrl::parse(*text) : std::nullopt;
    if (file) {
        opQueue_.addBlockToQueue([self = shared_from_this(), file] { self->process(file); });
    }
    opQueue_.countOfOperationsInQueue();
}

void EventForwarder::gotEventsToProcess(const Notification& /*notification*/) {
    kLog.debug("Received Event Timeout notification");
    // One delivery takes all events in memory. While one is queued, further ones would find nothing.
    if (!eventsWait_.exchange(true)) {
        try {
            opQueue_.addBlockToQueue([self = shared_from_this()] { self->process(std::nullopt); });
        } catch (...) {
            eventsWait_ = false;
            throw;
        }
    }
    opQueue_.countOfOperationsInQueue();
}

void EventForwarder::process(const std::optional<FileUrl>& file) {
    bool isTaken = false;
    try {
        isTaken = deliver(file);
    } catch (...) {
        // Nothing was sent, and the file still exists.
        if (file) {
            EventQueueGCD::announceAgain(*file);
        }
        throw;
    }
    if (isTaken && file) {
        const bool deleted = FileUtils::deleteFile(file->path());
        kLog.info("Going to Delete the file {} {:d}", file->absoluteString(), deleted);
        if (Current<FileSystem>::get().linkStatus(file->path())) {
            kLog.error("The file {} was sent but is still there; it is sent again after the next start", file->path());
        }
    }
}

bool EventForwarder::deliver(const std::optional<FileUrl>& file) {
    auto slot = slots_->take();
    if (!slot) {
        return false;
    }
    if (!file) {
        eventsWait_ = false;
    }
    // Allocated first: if memory ran out after the events have left the spool, they would be lost.
    const auto batch = std::make_shared<std::string>();
    auto data = EventQueueGCD::dequeue(file);
    if (!data) {
        return false;
    }
    *batch = *std::move(data);
    if (file && !SpoolFile::looksLikeBatch(*batch)) {
        kLog.error("The file {} is not a batch of events; it stays in the spool and is not sent", file->path());
        return false;
    }
    if (SendData(batch, std::move(slot))) {
        return true;
    }
    if (file) {
        kLog.error("The file {} was not sent; it stays in the spool and is retried", file->path());
        EventQueueGCD::announceAgain(*file);
    } else {
        kLog.error("The events in memory were not sent; they return to the spool");
        putBack(*batch);
    }
    return false;
}

bool EventForwarder::SendData(const std::shared_ptr<const std::string>& data, Slot slot) {
    bool isTaken = false;
    if (TransportEngine::isConnected()) {
        kLog.debug("Dequeued array={}", *data);
        runGuarded("EventForwarder", [&] {
            const auto engine = std::make_shared<TransportEngine>();
            kLog.info("EventForwarder next url {}", engine->baseURL());
            isTaken = engine->sendMessageToServer(
                MessageType::eventDelivery, data,
                [engine, data, slot = std::move(slot)](const auto& answer, const auto& response, const auto& error) {
                    finishDelivery(*engine, *data, answer, response, error);
                });
        });
    } else {
        putBack(*data);
        isTaken = true;
    }
    kLog.debug("EventForwarder sendData is finished");
    return isTaken;
}

void EventForwarder::cancel() {
    kLog.debug("EventForwarder cancel called");
    {
        MutexLock lock(observersMutex_);
        observers_.clear();
    }
    slots_->close();
    cancelOperation();
    completeOperation();
}

}  // namespace sentrova
