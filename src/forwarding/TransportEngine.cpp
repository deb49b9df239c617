#include "forwarding/TransportEngine.h"

#include "core/GlobalConstants.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "core/PropertyListHandler.h"
#include "foundation/CurlUrlSession.h"
#include "foundation/Mutex.h"
#include "foundation/ProcessWide.h"
#include "foundation/Text.h"

#include <algorithm>
#include <atomic>
#include <numeric>
#include <stdexcept>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("TransportEngine");
constexpr LogSource kTraffic = kLog.in(LogCategory::Communication);

constexpr std::chrono::seconds kRequestTimeout{30};

// Any certificate of a server is accepted; all other challenges are left to the request's time-out.
class ServerTrust final : public UrlSessionDelegate {
  public:
    void didReceiveChallenge(const UrlAuthenticationChallenge& challenge,
                             const ChallengeCompletion& completionHandler) override {
        if (challenge.method == UrlAuthenticationChallenge::Method::serverTrust) {
            completionHandler(UrlChallengeDisposition::useCredential);
        }
    }
};

// What is between "//" and the port must be the host's name and nothing else: the configuration comes from outside.
bool isHostName(const std::string& name) {
    return !name.empty() && std::ranges::all_of(name, [](char c) {
        return static_cast<unsigned char>(c) > ' ' && c != 0x7F &&
               std::string_view("/\\?#@%\"<>^`{|}").find(c) == std::string_view::npos;
    });
}

class Reachability {
  public:
    bool connected() const { return connected_; }

    // Whether that changed anything.
    bool change(bool flag) { return connected_.exchange(flag) != flag; }

  private:
    std::atomic<bool> connected_ = true;
};

struct SessionSettings {
    Mutex mutex{LockRank::choice};
    TransportEngine::SessionFactory factory GUARDED_BY(mutex);
};

SessionSettings& sessionSettings() {
    static SessionSettings settings;
    return settings;
}

std::unique_ptr<UrlSession> makeSession() {
    auto& settings = sessionSettings();
    auto trust = std::make_shared<ServerTrust>();
    MutexLock lock(settings.mutex);
    if (settings.factory) {
        return settings.factory(std::move(trust));
    }
    return std::make_unique<CurlUrlSession>(std::move(trust));
}

struct SharedSession {
    std::unique_ptr<UrlSession> session = makeSession();
};

struct SharedChoice {
    AddressChoice choice{GlobalVariables::getInstance()};
};

ProcessWide<SharedChoice> theAddressChoice;
ProcessWide<Reachability> theReachability;
ProcessWide<SharedSession> theSession;

}  // namespace

TransportEngine::TransportEngine() {
    compose(theAddressChoice.get().choice.present());
    static_cast<void>(theSession.get());
    kTraffic.info(__func__, "TransportEngine isConnected {:d}", isConnected());
}

void TransportEngine::compose(const ServerAddress& address) {
    urlComp_ = {address.scheme, ":", "//", address.host, ":", fmt::format("{}", address.port)};
    baseURL_ = std::accumulate(urlComp_.begin(), urlComp_.end(), std::string());
}

bool TransportEngine::isConnected() {
    return theReachability.get().connected();
}

void TransportEngine::setIsConnected(bool flag) {
    if (!theReachability.get().change(flag)) {
        return;
    }
    kTraffic.info(__func__, "TransportEngine isconnected changed to {:d}", flag);
    const auto& configuration = GlobalVariables::getInstance();
    const auto path = fmt::format("{}/{}", configuration.confPath(), GlobalConstants::MY_CONFIGURATIONS_FILE);
    PropertyListHandler::change(path, GlobalConstants::COMMUNICATION_TYPE,
                                static_cast<std::int64_t>(configuration.type()));
}

void TransportEngine::tryOtherURL() {
    compose(theAddressChoice.get().choice.next());
}

bool TransportEngine::sendMessageToServer(MessageType type, std::string andParameters,
                                          UrlSession::Completion andCompletionHandler) {
    return sendMessageToServer(type, std::make_shared<const std::string>(std::move(andParameters)),
                               std::move(andCompletionHandler));
}

bool TransportEngine::sendMessageToServer(MessageType type, const std::shared_ptr<const std::string>& andParameters,
                                          UrlSession::Completion andCompletionHandler) {
    try {
        MsgConfiguration message;
        message.getMessageConfiguration(type);
        if (!message.method() || !message.URL()) {
            throw std::invalid_argument(fmt::format("there is no message of type {}", static_cast<std::int64_t>(type)));
        }
        if (baseURL_.find(*message.URL()) == std::string::npos) {
            baseURL_ += *message.URL();
        }
        const auto body =
            isAscii(*andParameters) ? andParameters : std::make_shared<const std::string>(asciiLossy(*andParameters));
        UrlRequest request;
        if (isHostName(urlComp_[3])) {
            request.url = baseURL_;
        } else {
            // Without a URL the session fails the request, and the next address gets its turn.
            kLog.error(__func__, "\"{}\" is not the name of a host, so nothing is sent to it", urlComp_[3]);
        }
        request.method = *message.method();
        request.timeout = kRequestTimeout;
        request.setHeader("Content-Length", fmt::format("{}", body->size()));
        request.setHeader("Content-Type", "text/json");
        if (const auto accessKey = GlobalVariables::getInstance().orgAccessKey()) {
            request.setHeader(std::string(GlobalConstants::ORG_ACCESS_KEY), *accessKey);
        }
        theSession.get().session->uploadShared(request, body, std::move(andCompletionHandler));
        return true;
    } catch (const std::exception& exception) {
        kLog.error(__func__, "{}", exception.what());
    } catch (...) {
        kLog.error(__func__, "The session failed for an unknown reason");
    }
    return false;
}

std::string TransportEngine::describeFailure(const std::optional<UrlResponse>& response,
                                             const std::optional<Error>& error) const {
    const auto address = std::accumulate(urlComp_.begin(), urlComp_.end(), std::string());
    return error ? fmt::format("{}: {}", address, error->description)
                 : fmt::format("{}: answered with HTTP status {}", address, response ? response->statusCode : 0);
}

void TransportEngine::setSessionFactory(SessionFactory factory) {
    auto& settings = sessionSettings();
    MutexLock lock(settings.mutex);
    settings.factory = std::move(factory);
}

}  // namespace sentrova
