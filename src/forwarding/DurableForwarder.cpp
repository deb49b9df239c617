#include "forwarding/DurableForwarder.h"

#include "core/LogSource.h"
#include "forwarding/DeliveryLog.h"
#include "foundation/run/Unhandled.h"

#include <utility>

namespace sentrova {

namespace {

// The log and the main queue know both forwarders by the same name.
constexpr const char* kName = "EventForwarder";
constexpr LogSource kLog(kName);

// What an answer says about the batch and about the server.
enum class Verdict { delivered, tooLarge, refused, failed };

// The status 0 stands for no answer.
Verdict verdictOf(std::int64_t status) {
    switch (status) {
        case 200:
            return Verdict::delivered;
        case 413:
            return Verdict::tooLarge;
        case 400:
        case 411:
        case 415:
        case 422:
            return Verdict::refused;
        default:
            return Verdict::failed;
    }
}

void applyVerdict(DurableSpool& spool, Verdict verdict, const std::string& batch, std::int64_t status) {
    switch (verdict) {
        case Verdict::delivered:
            spool.confirm(batch);
            break;
        case Verdict::tooLarge:
            spool.split(batch, status);
            break;
        case Verdict::refused:
            spool.refuse(batch, status);
            break;
        case Verdict::failed:
            spool.giveBack(batch);
            break;
    }
}

}  // namespace

DurableForwarder::DurableForwarder(DurableSpool& spool, Transport& transport, Clock& clock,
                                   const Cryptography& cryptography)
    : ConcurrentOperationAbstract(kName),
      spool_(spool),
      transport_(transport),
      clock_(clock),
      gate_(transport.addresses(), cryptography),
      queue_("com.kelvark.vantorix.deliveryqueue", clock) {
    kLog.debug("EventForwarder Init called");
}

std::shared_ptr<DurableForwarder> DurableForwarder::make(DurableSpool& spool, Transport& transport, Clock& clock,
                                                         const Cryptography& cryptography) {
    // NOLINTNEXTLINE: the constructor is private
    return std::shared_ptr<DurableForwarder>(new DurableForwarder(spool, transport, clock, cryptography));
}

void DurableForwarder::start() {
    kLog.debug("EventForwarder start called");
    if (!canStart()) {
        return;
    }
    started();
    kLog.debug("EventForwarder start observing queue");
    const auto weak = weak_from_this();
    auto successes = transport_.observeSuccess([weak] {
        if (const auto self = weak.lock()) {
            self->gate_.succeeded();
            self->wake();
        }
    });
    {
        const MutexLock lock(successesMutex_);
        successes_ = std::move(successes);
    }
    spool_.onWork([weak] {
        if (const auto self = weak.lock()) {
            self->wake();
        }
    });
    wake();
}

void DurableForwarder::wake() {
    // The queue belongs to the forwarder, so a block that owned the forwarder could destroy its own queue.
    queue_.async([this] { pump(); });
}

void DurableForwarder::pump() {
    while (!isCancelled() && inFlight_ < kDeliveriesInFlight && sendNext()) {
    }
}

void DurableForwarder::wakeAt(std::optional<Clock::Monotonic> due) {
    clock_.cancel(std::exchange(timer_, 0));
    if (due) {
        timer_ = clock_.schedule(*due, [weak = weak_from_this()] {
            if (const auto self = weak.lock()) {
                self->wake();
            }
        });
    }
}

bool DurableForwarder::sendNext() {
    const auto pass = gate_.enter(clock_.monotonicTime());
    if (!pass) {
        wakeAt(gate_.opensAt());
        return false;
    }
    std::optional<DurableSpool::Delivery> batch;
    bool begun = false;
    const bool worked = runGuarded(kName, [&] {
        batch = spool_.take();
        if (batch) {
            ++inFlight_;
            begun = send(*batch, *pass);
        }
    });
    if (begun) {
        return true;
    }
    if (worked && !batch) {
        gate_.leave(*pass);
        return false;
    }
    // Not the server's fault, but the next attempt has to wait too.
    gate_.failed(*pass, std::nullopt, clock_.monotonicTime());
    if (batch) {
        --inFlight_;
        spool_.giveBack(batch->name);
        kLog.error("The batch {} was not sent; it stays in the spool and is retried", batch->name);
    }
    wakeAt(gate_.opensAt());
    return false;
}

// Returns as soon as the request has begun: an exception after that would send the batch a second time.
bool DurableForwarder::send(const DurableSpool::Delivery& batch, const ServerGate::Pass& pass) {
    kLog.debug("Dequeued array={}", *batch.body);
    const auto sent = std::make_shared<Sent>(Sent{batch, pass, TransportEngine(pass.address)});
    kLog.info("EventForwarder next url {}", sent->engine.baseURL());
    return sent->engine.sendMessageToServer(
        MessageType::eventDelivery, sent->batch.body,
        [self = shared_from_this(), sent](const auto& body, const auto& response, const auto& error) {
            self->finish(*sent, body, response, error);
        },
        sent->batch.key);
}

// Whatever fails here, the batch is confirmed or returns to the spool, and its place becomes free.
void DurableForwarder::finish(Sent& sent, const std::optional<Data>& body, const std::optional<UrlResponse>& response,
                              const std::optional<Error>& error) {
    const auto status = response && !error ? response->statusCode : 0;
    const auto verdict = verdictOf(status);
    runGuarded(kName, [&] {
        DeliveryLog::answered(body, response);
        if (verdict != Verdict::delivered) {
            DeliveryLog::failed(sent.engine, response, error);
        }
    });
    // Closes the gate before the batch returns, so that the batch is not sent again at once.
    if (verdict == Verdict::failed) {
        runGuarded(kName, [&] { noteFailure(sent, response); });
    } else if (verdict != Verdict::delivered) {
        gate_.answered(sent.pass);
    }
    if (!runGuarded(kName, [&] { applyVerdict(spool_, verdict, sent.batch.name, status); })) {
        runGuarded(kName, [&] { spool_.giveBack(sent.batch.name); });
    }
    if (verdict == Verdict::delivered) {
        runGuarded(kName, [&] {
            transport_.setIsConnected(true);
            DeliveryLog::succeeded(body);
        });
    }
    --inFlight_;
    wake();
}

void DurableForwarder::noteFailure(Sent& sent, const std::optional<UrlResponse>& response) {
    const bool mayHold = response && (response->statusCode == 429 || response->statusCode == 503);
    if (gate_.failed(sent.pass, mayHold ? response->retryAfter : std::nullopt, clock_.monotonicTime())) {
        transport_.setIsConnected(false);
        sent.engine.tryOtherURL();
    }
}

void DurableForwarder::cancel() {
    kLog.debug("EventForwarder cancel called");
    cancelOperation();
    {
        const MutexLock lock(successesMutex_);
        successes_.reset();
    }
    spool_.onWork({});
    // Waits for a delivery that is just beginning.
    queue_.close();
    queue_.sync([this] { wakeAt(std::nullopt); });
    completeOperation();
}

}  // namespace sentrova
