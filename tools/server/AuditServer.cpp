#include "server/AuditServer.h"

#include <pthread.h>
#include <signal.h>
#include <strings.h>

#include <algorithm>
#include <array>
#include <future>
#include <sstream>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

namespace sentrova::testing {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::minutes kPatience{1};
constexpr const char* kKeyHeader = "Idempotency-Key";

// The value of the header, or an empty text.
std::string headerOf(const AuditServer::Headers& headers, const char* name) {
    const auto found = std::ranges::find_if(
        headers, [name](const auto& header) { return ::strcasecmp(header.first.c_str(), name) == 0; });
    return found == headers.end() ? "" : found->second;
}

// Parses the head of a request, without its final empty line. Names and values of headers stay as received.
AuditServer::Request parsed(const std::string& head) {
    AuditServer::Request request;
    std::istringstream lines(head);
    std::string line;
    lines >> request.method >> request.path;
    std::getline(lines, line);
    while (std::getline(lines, line)) {
        line.resize(line.find_last_not_of('\r') + 1);
        const auto colon = std::min(line.find(':'), line.size());
        const auto value = std::min(line.find_first_not_of(" \t", colon + 1), line.size());
        request.headers.emplace_back(line.substr(0, colon), line.substr(value));
    }
    return request;
}

// Removes the next request from the front of the received bytes. Returns nothing once the connection has ended.
std::optional<AuditServer::Request> readRequest(ServerConnection& connection, std::string& received) {
    constexpr std::string_view kEndOfHead = "\r\n\r\n";
    const auto receive = [&] {
        std::array<char, 16384> bytes;
        const auto count = connection.read(bytes.data(), bytes.size());
        received.append(bytes.data(), count);
        return count > 0;
    };
    auto end = received.find(kEndOfHead);
    for (; end == std::string::npos; end = received.find(kEndOfHead)) {
        // Bytes that are not HTTP, such as a TLS greeting, never contain the end of a head.
        if (!receive() || received[0] < 'A' || received[0] > 'Z') {
            return std::nullopt;
        }
    }
    auto request = parsed(received.substr(0, end));
    const auto text = headerOf(request.headers, "Content-Length");
    const auto length = text.empty() ? 0 : std::stoul(text);
    received.erase(0, end + kEndOfHead.size());
    while (received.size() < length) {
        if (!receive()) {
            return std::nullopt;
        }
    }
    request.body = received.substr(0, length);
    received.erase(0, length);
    return request;
}

void sendRaw(const AuditServer::Failure& failure, ServerConnection& connection) {
    if (failure.kind == AuditServer::Failure::Kind::endless) {
        connection.write("HTTP/1.1 200 OK\r\n\r\n");
        for (const std::string flood(65536, ' '); connection.write(flood);) {
        }
    } else if (failure.pace.count() == 0) {
        connection.write(failure.body);
    } else {
        for (const char& byte : failure.body) {
            if (connection.awaitEnd(failure.pace) || !connection.write({&byte, 1})) {
                return;
            }
        }
    }
}

}  // namespace

AuditServer::AuditServer(const Configuration& configuration)
    : configuration_(configuration),
      tls_(configuration.https ? makeTlsContext(configuration.tls) : nullptr),
      listener_(configuration.port),
      thread_([this] { acceptAll(); }) {}

AuditServer::~AuditServer() {
    {
        MutexLock lock(mutex_);
        stopped_ = true;
        changed_.notifyAll();
    }
    listener_.shutDown();
    thread_.join();
}

std::string AuditServer::url() const {
    return std::string(configuration_.https ? "https" : "http") + "://127.0.0.1:" + std::to_string(port());
}

void AuditServer::setAnswer(std::string json) {
    MutexLock lock(mutex_);
    answer_ = std::move(json);
}

void AuditServer::fail(Failure failure) {
    MutexLock lock(mutex_);
    failures_.push_back(std::move(failure));
}

void AuditServer::release() {
    MutexLock lock(mutex_);
    ++releases_;
    changed_.notifyAll();
}

void AuditServer::clearFailures() {
    MutexLock lock(mutex_);
    failures_.clear();
    ++releases_;
    changed_.notifyAll();
}

void AuditServer::reset() {
    MutexLock lock(mutex_);
    failures_.clear();
    requests_.clear();
    events_.clear();
    keys_.clear();
    keyFaults_.clear();
    keyed_.clear();
    answer_.reset();
    mostAtOnce_ = 0;
    ++releases_;
    changed_.notifyAll();
}

std::vector<AuditServer::Request> AuditServer::requests() const {
    MutexLock lock(mutex_);
    std::vector<Request> copies;
    std::ranges::transform(requests_, std::back_inserter(copies), [](const auto& request) { return *request; });
    return copies;
}

std::vector<std::string> AuditServer::events() const {
    MutexLock lock(mutex_);
    return events_;
}

std::vector<std::string> AuditServer::keys() const {
    MutexLock lock(mutex_);
    return keys_;
}

std::vector<std::string> AuditServer::keyFaults() const {
    MutexLock lock(mutex_);
    return keyFaults_;
}

int AuditServer::mostAtOnce() const {
    MutexLock lock(mutex_);
    return mostAtOnce_;
}

bool AuditServer::waitForRequests(std::size_t count) const {
    MutexLock lock(mutex_);
    for (const auto giveUp = Clock::now() + kPatience; requests_.size() < count && Clock::now() < giveUp;) {
        changed_.waitUntil(lock, giveUp);
    }
    return requests_.size() >= count;
}

bool AuditServer::waitForEvents(std::size_t count) const {
    MutexLock lock(mutex_);
    for (const auto giveUp = Clock::now() + kPatience; events_.size() < count && Clock::now() < giveUp;) {
        changed_.waitUntil(lock, giveUp);
    }
    return events_.size() >= count;
}

void AuditServer::acceptAll() {
    // Also blocks the signal in the connections' threads, which inherit the mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    struct Served {
        std::weak_ptr<ServerConnection> connection;
        std::future<void> end;
    };
    std::vector<Served> all;
    int accepted = 0;
    while (std::shared_ptr<ServerConnection> connection = listener_.accept(tls_)) {
        std::erase_if(all, [](const Served& served) { return served.connection.expired(); });
        Served served{connection, {}};
        served.end = std::async(std::launch::async, [this, number = ++accepted, own = std::move(connection)]() mutable {
            // The future keeps the lambda. The connection must close earlier, when it has been served.
            const auto ending = std::move(own);
            serve(ending, number);
        });
        all.push_back(std::move(served));
    }
    for (const auto& served : all) {
        if (const auto connection = served.connection.lock()) {
            connection->shutDown();
        }
    }
}

void AuditServer::serve(const std::shared_ptr<ServerConnection>& connection, int number) {
    std::string received;
    bool goesOn = connection->handshake();
    while (goesOn) {
        auto request = readRequest(*connection, received);
        if (!request) {
            return;
        }
        request->connection = number;
        MutexLock lock(mutex_);
        const Arrival arrival{std::make_shared<Request>(*std::move(request)), releases_};
        requests_.push_back(arrival.request);
        if (const auto key = headerOf(arrival.request->headers, kKeyHeader); !key.empty()) {
            const auto first = keyed_.try_emplace(key, Keyed{.first = arrival.request}).first->second.first;
            if (first && first->body != arrival.request->body) {
                keyFaults_.push_back(key);
            }
        }
        mostAtOnce_ = std::max(mostAtOnce_, ++underWay_);
        changed_.notifyAll();
        lock.unlock();
        goesOn = handle(arrival, *connection);
    }
}

bool AuditServer::handle(const Arrival& arrival, ServerConnection& connection) {
    using Kind = Failure::Kind;
    const auto failure = failureFor(arrival.request->path);
    const auto kind = failure ? failure->kind : Kind::hold;
    if (!failure || (kind == Kind::hold && awaitRelease(arrival))) {
        return answer(*arrival.request, connection);
    }
    if (failure->accepts) {
        accept(*arrival.request);
    }
    if (kind == Kind::status) {
        return send(connection, failure->status, failure->headers, failure->body);
    }
    if (kind == Kind::raw || kind == Kind::endless) {
        finish();
        sendRaw(*failure, connection);
        return false;
    }
    if (kind == Kind::reset) {
        connection.reset();
    } else if (kind == Kind::halfClose) {
        connection.endAnswer();
    }
    if (kind == Kind::halfClose || kind == Kind::noAnswer) {
        connection.awaitEnd();
    }
    finish();
    return false;
}

bool AuditServer::answer(const Request& request, ServerConnection& connection) {
    if (request.method == "POST" && request.path == kSyncPath) {
        const auto text = syncAnswer();
        return send(connection, text ? 200 : 500, {}, text.value_or(""));
    }
    if (request.method == "POST" && request.path == kEventsPath) {
        const int status = accept(request);
        return send(connection, status, {}, status == 200 ? R"({"status":"ok"})" : "");
    }
    return send(connection, 404, {}, "");
}

bool AuditServer::send(ServerConnection& connection, int status, const Headers& headers, const std::string& body) {
    finish();
    auto text = "HTTP/1.1 " + std::to_string(status) + " \r\n";
    for (const auto& [name, value] : headers) {
        text += name + ": " + value + "\r\n";
    }
    if (status != 204) {
        text += "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
    }
    return connection.write(text + "\r\n" + body);
}

std::optional<AuditServer::Failure> AuditServer::failureFor(const std::string& path) {
    MutexLock lock(mutex_);
    const auto found = std::ranges::find_if(failures_, [&](Failure& failure) {
        if (!path.starts_with(failure.path) || failure.count == 0) {
            return false;
        }
        --failure.after;
        return failure.after < 0;
    });
    if (found == failures_.end()) {
        return std::nullopt;
    }
    auto failure = *found;
    if (found->count > 0) {
        --found->count;
        if (found->count == 0) {
            failures_.erase(found);
        }
    }
    return failure;
}

std::optional<std::string> AuditServer::syncAnswer() {
    MutexLock lock(mutex_);
    return answer_ || !configuration_.onSync ? answer_.value_or("{}") : configuration_.onSync();
}

int AuditServer::accept(const Request& request) {
    const auto events = nlohmann::ordered_json::parse(request.body, nullptr, false);
    if (!events.is_array()) {
        return 400;
    }
    const auto key = headerOf(request.headers, kKeyHeader);
    MutexLock lock(mutex_);
    if (!key.empty()) {
        auto& keyed = keyed_[key];
        if (keyed.first && keyed.first->body != request.body) {
            return 422;
        }
        if (std::exchange(keyed.isAccepted, true)) {
            return 200;
        }
    }
    keys_.push_back(key);
    for (const auto& event : events) {
        events_.push_back(event.dump());
        if (configuration_.onEvent) {
            configuration_.onEvent(events_.back());
        }
    }
    changed_.notifyAll();
    return 200;
}

bool AuditServer::awaitRelease(const Arrival& arrival) {
    MutexLock lock(mutex_);
    while (arrival.releases == releases_ && !stopped_) {
        changed_.wait(lock);
    }
    return !stopped_;
}

void AuditServer::finish() {
    MutexLock lock(mutex_);
    --underWay_;
}

}  // namespace sentrova::testing
