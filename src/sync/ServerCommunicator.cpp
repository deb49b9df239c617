#include "sync/ServerCommunicator.h"

#include "collection/DomainUtil.h"
#include "core/ConfigurationCheck.h"
#include "core/GlobalConstants.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "core/Secrets.h"
#include "forwarding/TransportEngine.h"
#include "foundation/formats/Json.h"
#include "foundation/run/Current.h"
#include "foundation/run/Mutex.h"
#include "foundation/run/Unhandled.h"
#include "operations/ScheduleHandler.h"
#include "sync/StorableAnswer.h"
#include "sync/SyncRounds.h"

#include <array>
#include <memory>
#include <optional>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("ServerCommunicator");
constexpr LogSource kTraffic = kLog.in(LogCategory::Communication);

// One rotation through all addresses: three connections with four host forms each.
constexpr int kFailuresBeforePause = 12;
constexpr std::chrono::seconds kPause{900};

std::string serverInfoFile() {
    return fmt::format("{}/{}", GlobalVariables::getInstance().confPath(), GlobalConstants::SERVER_INFO_FILE);
}

Value valueOf(const std::optional<std::string>& text) {
    return text ? Value(*text) : Value();
}

// `Serverinfo.plist` with the keys that the request adds, in memory only.
PropertyListHandler requestData() {
    const auto& configuration = GlobalVariables::getInstance();
    auto request = PropertyListHandler::initWithFile(serverInfoFile());
    request.updateDictionary(request.dictionary() ? *request.dictionary() : Dictionary());
    request.SetValueForKey("Build", valueOf(configuration.agentVersion()));
    request.SetValueForKey(GlobalConstants::TIMESTAMP_LE, configuration.timeStampOfLastEvent());
    request.SetValueForKey(GlobalConstants::AGENT_AUTHENTICATION_ID, valueOf(configuration.agentUUID()));
    request.SetValueForKey(
        GlobalConstants::LASTSCHEDULERUNAT,
        ScheduleHandler::getProperty(ScheduleHandler::kLastScheduleTimeInMillis, ScheduleHandler::kEventCollection));
    return request;
}

void setCommunicationType(PropertyListHandler& request) {
    switch (GlobalVariables::getInstance().type()) {
        case 0:
            request.SetValueForKey(GlobalConstants::COMMUNICATION_TYPE, "1:NAT");
            break;
        case 1:
            request.SetValueForKey(GlobalConstants::COMMUNICATION_TYPE, "2:AgentConnector");
            break;
        case 2:
            request.SetValueForKey(GlobalConstants::COMMUNICATION_TYPE, "3:ProductConnector");
            break;
        default:
            break;
    }
}

// Parses the server's answer, which may be an empty dictionary. Returns nothing if it is not a dictionary.
std::optional<Dictionary> parsedAnswer(const std::optional<Data>& data) {
    if (!data || data->empty()) {
        return std::nullopt;
    }
    const auto parsed = Json::parse(std::string_view(reinterpret_cast<const char*>(data->data()), data->size()));
    if (!parsed || !parsed->dictionary()) {
        kLog.error("The server's answer is not a configuration: {}",
                   parsed ? "it is not a dictionary" : parsed.error().description);
        return std::nullopt;
    }
    StorableAnswer answer(*parsed->dictionary());
    for (const auto& where : answer.dropped) {
        kLog.error("The server's answer has a text at {} that a property list cannot store; the text is left out",
                   where);
    }
    if (const auto others = answer.droppedCount - answer.dropped.size(); others > 0) {
        kLog.error("The server's answer has {} more such texts", others);
    }
    return std::move(answer.content);
}

// Stores the answer and applies its changes. Returns false for an answer that cannot be stored and is therefore not
// applied: the next answer would be compared with the old file, and all changes applied again.
bool apply(const PropertyListHandler& sent, Dictionary answer) {
    if (!PropertyListHandler::replace(serverInfoFile(), answer)) {
        kLog.error("The server's answer could not be stored and is not applied; the next sync tries again");
        return false;
    }
    auto& configuration = GlobalVariables::getInstance();
    configuration.initialiseServerInfo();
    const auto& domain = answer[GlobalConstants::DOMAIN_NAME];
    DomainUtil::setDomainName(domain.isNull() ? std::nullopt : std::optional(domain.description()));
    using Handler = void (*)(const PropertyListHandler&, Dictionary&);
    static constexpr std::array<Handler, 7> kHandlers = {
        ServerCommunicator::ConfigurationChangesCheckWithOldData,
        ServerCommunicator::StateChangesCheckWithOldData,
        ServerCommunicator::IntervalChangesCheckWithOldData,
        ServerCommunicator::NATChangesWithOldData,
        ServerCommunicator::SyncTimeCheckWithOldData,
        ServerCommunicator::realTimeReinitialiseCheckWithOldData,
        ServerCommunicator::AuthIDChangesWithOldData,
    };
    for (const auto handler : kHandlers) {
        // A failed handler must not keep the others from running.
        runGuarded("ServerCommunicator", [&] { handler(sent, answer); });
    }
    configuration.initialiseMyConfigurations();
    Current<ConfigurationReport>::get().check();
    return true;
}

// Shared by the waiting call and the completions of its requests.
struct Exchange {
    TransportEngine engine;
    PropertyListHandler request = requestData();
    Semaphore answered;
    // Signalled at the end of each completion, even after a failure.
    Semaphore completed;

    Mutex mutex{LockRank::owner};
    bool retry GUARDED_BY(mutex) = true;
    int failures GUARDED_BY(mutex) = 0;

    void succeed() EXCLUDES(mutex) {
        // Signalled under the lock, so that the woken call sees the cleared flag.
        MutexLock lock(mutex);
        answered.signal();
        retry = false;
        failures = 0;
    }

    void fail() EXCLUDES(mutex) {
        MutexLock lock(mutex);
        ++failures;
        answered.signal();
    }

    bool mustRetry() EXCLUDES(mutex) {
        MutexLock lock(mutex);
        return retry;
    }

    // Whether every address has failed, so that the pause is due.
    bool passIsOver() EXCLUDES(mutex) {
        MutexLock lock(mutex);
        return failures == kFailuresBeforePause;
    }
    void beginPass() EXCLUDES(mutex) {
        MutexLock lock(mutex);
        failures = 0;
    }
};

// Returns true if the server answered with 200. Otherwise the next request goes to the next address.
bool isAnswered(Exchange& exchange, const std::optional<Data>& data, const std::optional<UrlResponse>& response,
                const std::optional<Error>& error) {
    if (LogSource::isWritten(LogLevel::Debug)) {
        kTraffic.debug("GlobalVariables DATA= {}", Secrets::maskedBody(data));
    }
    const auto status = fmt::format("{}", response ? response->statusCode : 0);
    kTraffic.debug("response status code: {}", status);
    if (error || status != "200") {
        kTraffic.error(" response code error {}", error ? error->description : "(null)");
        kTraffic.error("The sync failed at {}", exchange.engine.describeFailure(response, error));
        TransportEngine::setIsConnected(false);
        exchange.engine.tryOtherURL();
        return false;
    }
    TransportEngine::setIsConnected(true);
    return true;
}

SyncRounds::Outcome applyAnswer(const PropertyListHandler& sent, const std::optional<Data>& data) {
    auto answer = parsedAnswer(data);
    kTraffic.info("response={}", answer ? Secrets::masked(*answer) : Value());
    const bool isApplied = answer && (answer->empty() || apply(sent, *std::move(answer)));
    return isApplied ? SyncRounds::Outcome::applied : SyncRounds::Outcome::rejected;
}

// The end of the round that succeeded: tells those who asked for it.
void endRound(const Exchange& exchange, SyncRounds::Outcome outcome) {
    Current<SyncRounds>::get().end(
        outcome, fmt::format("{}: {}", exchange.engine.baseURL(),
                             outcome == SyncRounds::Outcome::applied
                                 ? "the answer has been applied"
                                 : "the answer was not applied; the reason is in the log of the category Config"));
}

// Runs on the session's delegate queue. Every path signals both semaphores, even after an exception. Otherwise the call
// would wait forever.
void completeExchange(Exchange& exchange, const std::optional<Data>& data, const std::optional<UrlResponse>& response,
                      const std::optional<Error>& error) {
    bool answered = false;
    runGuarded("ServerCommunicator", [&] { answered = isAnswered(exchange, data, response, error); });
    if (answered) {
        Current<SyncRounds>::get().beginApplying();
        exchange.succeed();
        auto outcome = SyncRounds::Outcome::rejected;
        runGuarded("ServerCommunicator", [&] { outcome = applyAnswer(exchange.request, data); });
        runGuarded("ServerCommunicator", [&] { endRound(exchange, outcome); });
    } else {
        exchange.fail();
    }
    exchange.completed.signal();
}

}  // namespace

void ServerCommunicator::syncFromServer() {
    auto& rounds = Current<SyncRounds>::get();
    do {
        sync(Until::answered);
    } while (rounds.isAwaited());
}

void ServerCommunicator::syncAndApply() {
    sync(Until::applied);
}

void ServerCommunicator::sync(Until until) {
    auto& rounds = Current<SyncRounds>::get();
    const SyncRounds::Turn turn(rounds);
    if (!turn.isHeld()) {
        return;
    }
    kLog.info("GlobalVariables going to sync data from server");
    const auto exchange = std::make_shared<Exchange>();
    for (;;) {
        if (exchange->passIsOver()) {
            rounds.end(SyncRounds::Outcome::failed, "no address of the server has answered with success");
            kLog.info("Sleeping for 900 seconds");
            rounds.pause(kPause);
            exchange->beginPass();
        }
        setCommunicationType(exchange->request);
        kLog.info("GlobalVariables next url {}", exchange->engine.baseURL());
        const bool begun = exchange->engine.sendMessageToServer(
            MessageType::configurationSync, exchange->request.getPlistAsJsonString().value_or(""),
            [exchange](const auto& data, const auto& response, const auto& error) {
                completeExchange(*exchange, data, response, error);
            });
        if (!begun) {
            // The session will not call the completion, so the wait would never end.
            completeExchange(*exchange, {}, {}, Error{kUrlErrorDomain, 0, "The request could not begin"});
        }
        exchange->answered.wait();
        if (until == Until::applied) {
            exchange->completed.wait();
        }
        if (!exchange->mustRetry()) {
            kTraffic.debug("GlobalVariables Sync Data is finished");
            return;
        }
    }
}

}  // namespace sentrova
