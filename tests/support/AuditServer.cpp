#include "support/AuditServer.h"

#include "foundation/Mutex.h"
#include "support/ServerConnection.h"

#include <httplib.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <stdexcept>
#include <string_view>
#include <thread>

#include <nlohmann/json.hpp>

namespace sentrova::testing {

namespace {

using Json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;
using Headers = std::vector<std::pair<std::string, std::string>>;
using Kind = AuditServer::Failure::Kind;

// Each connection occupies one for as long as it is kept alive.
constexpr std::size_t kConnectionsAtOnce = 48;
constexpr const char* kJsonType = "application/json";

// A connection as the HTTP library reads it: through a buffer that spares a system call a byte, and with a copy of the
// present request's head, whose order of headers the library does not keep.
class BufferedStream final : public httplib::Stream {
  public:
    explicit BufferedStream(ServerConnection& connection) : connection_(connection) {}

    // What comes next is the head of a request.
    void beginRequest() {
        head_.clear();
        headComplete_ = false;
    }
    const std::string& head() const { return head_; }

    bool is_readable() const override { return true; }
    bool is_writable() const override { return !connection_.isShutDown(); }

    ssize_t read(char* bytes, std::size_t room) override {
        if (next_ == filled_) {
            filled_ = connection_.read(buffer_.data(), buffer_.size());
            next_ = 0;
        }
        const auto count = std::min(room, filled_ - next_);
        std::copy_n(buffer_.data() + next_, count, bytes);
        next_ += count;
        if (!headComplete_) {
            head_.append(bytes, count);
            headComplete_ = head_.ends_with("\r\n\r\n");
        }
        return static_cast<ssize_t>(count);
    }

    ssize_t write(const char* bytes, std::size_t count) override {
        return connection_.write({bytes, count}) ? static_cast<ssize_t>(count) : -1;
    }

    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}
    socket_t socket() const override { return connection_.socket(); }

  private:
    ServerConnection& connection_;
    std::vector<char> buffer_ = std::vector<char>(16384);
    std::size_t next_ = 0;
    std::size_t filled_ = 0;
    std::string head_;
    bool headComplete_ = true;
};

// The connection that the present thread serves.
struct Served {
    ServerConnection& connection;
    BufferedStream& stream;
    int number;
};

// The HTTP library with connections of our own, so that each can be cut at any byte and all can be closed at once.
class Listener final : public httplib::Server {
  public:
    using Handler = std::function<void(const Served&, const httplib::Request&, httplib::Response&)>;

    Listener(TlsContext tls, Handler handler) : tls_(std::move(tls)), handler_(std::move(handler)) {
        new_task_queue = [] { return std::make_unique<httplib::ThreadPool>(kConnectionsAtOnce).release(); };
        // Without the library's choice to share the port with other servers.
        set_socket_options([](socket_t socket) {
            const int yes = 1;
            ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        });
        set_tcp_nodelay(true);
        const auto handle = [this](const httplib::Request& request, httplib::Response& response) {
            handler_(*served_, request, response);
        };
        Get(".*", handle);
        Post(".*", handle);
        Put(".*", handle);
        Delete(".*", handle);
    }

    void shutDownAll() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        stopped_ = true;
        for (auto* const connection : connections_) {
            connection->shutDown();
        }
    }

  private:
    bool process_and_close_socket(socket_t socket) override {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);

        ServerConnection connection(socket, tls_);
        const int number = enlist(connection);
        serve(connection, number);
        MutexLock lock(mutex_);
        connections_.erase(&connection);
        return true;
    }

    int enlist(ServerConnection& connection) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        connections_.insert(&connection);
        if (stopped_) {
            connection.shutDown();
        }
        return ++accepted_;
    }

    void serve(ServerConnection& connection, int number) {
        if (!connection.handshake()) {
            return;
        }
        BufferedStream stream(connection);
        const Served served{connection, stream, number};
        served_ = &served;
        bool closed = false;
        do {
            stream.beginRequest();
        } while (process_request(stream, false, closed, nullptr) && !closed && !connection.isShutDown());
        served_ = nullptr;
    }

    // The library hands a request to its handler on the same thread, but not the connection that it came by.
    static thread_local const Served* served_;

    const TlsContext tls_;
    const Handler handler_;
    Mutex mutex_;
    std::set<ServerConnection*> connections_ GUARDED_BY(mutex_);
    int accepted_ GUARDED_BY(mutex_) = 0;
    bool stopped_ GUARDED_BY(mutex_) = false;
};

thread_local const Served* Listener::served_ = nullptr;

Headers headersOf(std::string_view head) {
    Headers headers;
    head.remove_prefix(std::min(head.find("\r\n") + 2, head.size()));
    for (auto end = head.find("\r\n"); end != std::string_view::npos && end > 0; end = head.find("\r\n")) {
        const auto line = head.substr(0, end);
        const auto colon = std::min(line.find(':'), line.size());
        const auto value = std::min(line.find_first_not_of(" \t", colon + 1), line.size());
        headers.emplace_back(line.substr(0, colon), line.substr(value));
        head.remove_prefix(end + 2);
    }
    return headers;
}

// The elements of a JSON array, each without its blanks; nothing when the text is no JSON array.
std::optional<std::vector<std::string>> elementsOf(const std::string& text) {
    if (!Json::accept(text) || text[text.find_first_not_of(" \t\r\n")] != '[') {
        return std::nullopt;
    }
    std::vector<std::string> elements;
    std::string element;
    int depth = 0;
    bool quoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const bool opens = !quoted && (c == '[' || c == '{');
        const bool closes = !quoted && (c == ']' || c == '}');
        depth -= closes ? 1 : 0;
        if (!quoted && ((depth == 1 && c == ',') || depth == 0)) {
            if (!element.empty()) {
                elements.push_back(std::exchange(element, {}));
            }
        } else if (quoted || std::string_view(" \t\r\n").find(c) == std::string_view::npos) {
            element += c;
        }
        depth += opens ? 1 : 0;
        if (c == '"') {
            quoted = !quoted;
        } else if (quoted && c == '\\') {
            element += text[++i];
        }
    }
    return elements;
}

AuditServer::Failure failureFrom(const Json& object) {
    static const std::map<std::string, Kind> kKinds = {{"status", Kind::status},   {"redirect", Kind::status},
                                                       {"delay", Kind::delay},     {"noanswer", Kind::noAnswer},
                                                       {"hold", Kind::hold},       {"drop", Kind::drop},
                                                       {"cut", Kind::cut},         {"cuthead", Kind::cutHead},
                                                       {"reset", Kind::reset},     {"halfclose", Kind::halfClose},
                                                       {"surplus", Kind::surplus}, {"slow", Kind::slow},
                                                       {"endless", Kind::endless}};
    const auto kind = object.at("kind").get<std::string>();
    const auto found = kKinds.find(kind);
    if (found == kKinds.end()) {
        throw std::runtime_error("unknown kind \"" + kind + "\"");
    }
    AuditServer::Failure failure;
    failure.kind = found->second;
    if (kind == "redirect") {
        failure.status = 302;
        failure.headers = {{"Location", "/elsewhere"}};
    }
    failure.path = object.value("path", failure.path);
    failure.status = object.value("status", failure.status);
    failure.seconds = object.value("seconds", failure.seconds);
    failure.count = object.value("count", failure.count);
    failure.after = object.value("after", failure.after);
    failure.body = object.value("body", failure.body);
    if (object.contains("headers")) {
        failure.headers.clear();
        for (const auto& [name, value] : object.at("headers").items()) {
            failure.headers.emplace_back(name, value.get<std::string>());
        }
    }
    return failure;
}

std::string jsonOf(const std::vector<AuditServer::Request>& requests) {
    auto array = Json::array();
    for (const auto& request : requests) {
        array.push_back({{"method", request.method},
                         {"path", request.path},
                         {"headers", request.headers},
                         {"body", request.body},
                         {"connection", request.connection},
                         {"status", request.status}});
    }
    return array.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::chrono::milliseconds pace(const AuditServer::Failure& failure) {
    constexpr double kLongest = 24 * 60 * 60;
    return std::chrono::milliseconds(std::llround(std::clamp(failure.seconds, 0.0, kLongest) * 1000));
}

}  // namespace

class AuditServer::Impl {
  public:
    explicit Impl(const Configuration& configuration)
        : configuration_(configuration),
          listener_(configuration.https ? makeTlsContext(configuration.tls) : nullptr,
                    [this](const Served& served, const httplib::Request& request, httplib::Response& response) {
                        handle(served, request, response);
                    }) {
        constexpr const char* kLoopback = "127.0.0.1";
        if (configuration.port == 0) {
            port_ = listener_.bind_to_any_port(kLoopback);
        } else {
            port_ = listener_.bind_to_port(kLoopback, configuration.port) ? configuration.port : -1;
        }
        if (port_ <= 0) {
            throw std::runtime_error("cannot listen on port " + std::to_string(configuration.port));
        }
        thread_ = std::thread([this] { listener_.listen_after_bind(); });
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    ~Impl() {
        {
            MutexLock lock(mutex_);
            stopped_ = true;
            changed_.notifyAll();
        }
        listener_.shutDownAll();
        while (!listener_.is_running()) {
            std::this_thread::yield();
        }
        listener_.stop();
        thread_.join();
    }

    int port() const { return port_; }
    std::string url() const {
        return std::string(configuration_.https ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_);
    }

    void setAnswer(std::string json) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        answer_ = std::move(json);
    }

    void fail(Failure failure) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        failures_.push_back(std::move(failure));
    }

    void release() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        ++releases_;
        changed_.notifyAll();
    }

    void reset() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        failures_.clear();
        requests_.clear();
        ++resets_;
        events_.clear();
        answer_.reset();
        mostAtOnce_ = 0;
        ++releases_;
        changed_.notifyAll();
    }

    std::vector<Request> requests() const EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return requests_;
    }

    std::vector<std::string> events() const EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return events_;
    }

    int mostAtOnce() const EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return mostAtOnce_;
    }

    bool waitForRequests(std::size_t count, std::chrono::seconds time) const EXCLUDES(mutex_) {
        const auto giveUp = Clock::now() + time;
        MutexLock lock(mutex_);
        while (requests_.size() < count && Clock::now() < giveUp) {
            changed_.waitUntil(lock, giveUp);
        }
        return requests_.size() >= count;
    }

    bool waitForEvents(std::size_t count, std::chrono::seconds time) const EXCLUDES(mutex_) {
        const auto giveUp = Clock::now() + time;
        MutexLock lock(mutex_);
        while (events_.size() < count && Clock::now() < giveUp) {
            changed_.waitUntil(lock, giveUp);
        }
        return events_.size() >= count;
    }

  private:
    // A request's place in requests_, as long as there has been no reset since.
    struct Ticket {
        std::size_t index;
        int resets;
        // How many releases there had been when it arrived: the next one lets it go.
        int releases;
    };

    void handle(const Served& served, const httplib::Request& request, httplib::Response& response) {
        if (request.path.starts_with("/control/")) {
            control(request, response);
            return;
        }
        const auto ticket = remember(served, request);
        const auto failure = failureFor(request.path);
        if (!failure || meet(*failure, ticket, served, request, response)) {
            answer(request, response);
        }
        const bool dropped = served.connection.isShutDown();
        MutexLock lock(mutex_);
        --underWay_;
        if (!dropped) {
            setStatusLocked(ticket, response.status);
        }
    }

    Ticket remember(const Served& served, const httplib::Request& request) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        requests_.push_back(
            {request.method, request.path, headersOf(served.stream.head()), request.body, served.number, 0});
        mostAtOnce_ = std::max(mostAtOnce_, ++underWay_);
        changed_.notifyAll();
        return {requests_.size() - 1, resets_, releases_};
    }

    void setStatusLocked(const Ticket& ticket, int status) REQUIRES(mutex_) {
        if (ticket.resets == resets_) {
            requests_[ticket.index].status = status;
        }
    }

    std::optional<Failure> failureFor(const std::string& path) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        const auto found = std::ranges::find_if(failures_, [&](Failure& failure) {
            return path.starts_with(failure.path) && failure.count != 0 && --failure.after < 0;
        });
        if (found == failures_.end()) {
            return std::nullopt;
        }
        auto failure = *found;
        if (found->count > 0 && --found->count == 0) {
            failures_.erase(found);
        }
        return failure;
    }

    // Returns whether the request is to be answered as ever.
    bool meet(const Failure& failure, const Ticket& ticket, const Served& served, const httplib::Request& request,
              httplib::Response& response) {
        switch (failure.kind) {
            case Kind::status:
                response.status = failure.status;
                for (const auto& [name, value] : failure.headers) {
                    response.set_header(name, value);
                }
                response.set_content(failure.body, kJsonType);
                return false;
            case Kind::delay:
                return !served.connection.awaitEnd(pace(failure));
            case Kind::hold:
                return awaitRelease(ticket);
            case Kind::noAnswer:
                served.connection.awaitEnd();
                break;
            case Kind::drop:
                break;
            case Kind::reset:
                served.connection.reset();
                return false;
            case Kind::halfClose:
                served.connection.endAnswer();
                served.connection.awaitEnd();
                break;
            case Kind::surplus:
            case Kind::slow:
                answer(request, response);
                [[fallthrough]];
            default: {
                MutexLock lock(mutex_);
                setStatusLocked(ticket, 200);
            }
                answerBadly(failure, served.connection);
                break;
        }
        served.connection.shutDown();
        return false;
    }

    // Returns whether the release has come, rather than the end of the server.
    bool awaitRelease(const Ticket& ticket) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        while (ticket.releases == releases_ && !stopped_) {
            changed_.wait(lock);
        }
        return !stopped_;
    }

    static void answerBadly(const Failure& failure, ServerConnection& connection) {
        const std::string body = failure.body.empty() ? R"({"status":"ok"})" : failure.body;
        const std::string start = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: ";
        switch (failure.kind) {
            case Kind::cut:
                connection.write(start + std::to_string(2 * body.size()) + "\r\n\r\n" + body);
                break;
            case Kind::cutHead:
                connection.write(start);
                break;
            case Kind::surplus:
                connection.write(start + std::to_string(body.size() / 2) + "\r\n\r\n" + body);
                break;
            case Kind::slow:
                connection.write(start + std::to_string(body.size()) + "\r\n\r\n");
                for (const char& byte : body) {
                    if (connection.awaitEnd(pace(failure)) || !connection.write({&byte, 1})) {
                        break;
                    }
                }
                break;
            default:
                connection.write("HTTP/1.1 200 OK\r\n\r\n");
                for (const std::string flood(65536, ' '); connection.write(flood);) {
                }
        }
    }

    void answer(const httplib::Request& request, httplib::Response& response) {
        response.status = 404;
        if (request.method != "POST") {
            return;
        }
        if (request.path == kSyncPath) {
            answerSync(response);
        } else if (request.path == kEventsPath) {
            answerEvents(request, response);
        }
    }

    void answerSync(httplib::Response& response) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        std::string text = answer_.value_or("{}");
        if (!answer_ && !configuration_.answerFile.empty()) {
            std::ifstream file(configuration_.answerFile, std::ios::binary);
            if (!file) {
                response.status = 500;
                return;
            }
            text.assign(std::istreambuf_iterator<char>(file), {});
        }
        response.status = 200;
        response.set_content(text, kJsonType);
    }

    void answerEvents(const httplib::Request& request, httplib::Response& response) EXCLUDES(mutex_) {
        const auto events = elementsOf(request.body);
        if (!events) {
            response.status = 400;
            return;
        }
        response.status = 200;
        response.set_content(R"({"status":"ok"})", kJsonType);
        MutexLock lock(mutex_);
        events_.insert(events_.end(), events->begin(), events->end());
        changed_.notifyAll();
        if (configuration_.onEvent) {
            std::ranges::for_each(*events, configuration_.onEvent);
        }
    }

    void control(const httplib::Request& request, httplib::Response& response) {
        const std::string what = request.method + " " + request.path;
        if (what == "GET /control/requests") {
            response.set_content(jsonOf(requests()), kJsonType);
        } else if (what == "GET /control/events") {
            std::string array = "[";
            for (const auto& event : events()) {
                array += (array.size() > 1 ? "," : "") + event;
            }
            response.set_content(array + "]", kJsonType);
        } else if (what == "POST /control/answer") {
            setAnswer(request.body);
        } else if (what == "POST /control/fail") {
            controlFail(request, response);
        } else if (what == "POST /control/release") {
            release();
        } else if (what == "POST /control/reset") {
            reset();
        } else {
            response.status = 404;
        }
    }

    void controlFail(const httplib::Request& request, httplib::Response& response) {
        try {
            auto rules = Json::parse(request.body);
            if (!rules.is_array()) {
                rules = Json::array({rules});
            }
            std::vector<Failure> failures;
            std::ranges::transform(rules, std::back_inserter(failures), failureFrom);
            std::ranges::for_each(failures, [this](const Failure& failure) { fail(failure); });
        } catch (const std::exception& exception) {
            response.status = 400;
            response.set_content(std::string(exception.what()) + "\n", "text/plain");
        }
    }

    const Configuration configuration_;

    mutable Mutex mutex_;
    mutable Condition changed_;
    std::deque<Failure> failures_ GUARDED_BY(mutex_);
    std::vector<Request> requests_ GUARDED_BY(mutex_);
    std::vector<std::string> events_ GUARDED_BY(mutex_);
    std::optional<std::string> answer_ GUARDED_BY(mutex_);
    int underWay_ GUARDED_BY(mutex_) = 0;
    int mostAtOnce_ GUARDED_BY(mutex_) = 0;
    int releases_ GUARDED_BY(mutex_) = 0;
    int resets_ GUARDED_BY(mutex_) = 0;
    bool stopped_ GUARDED_BY(mutex_) = false;

    Listener listener_;
    int port_ = 0;
    std::thread thread_;
};

AuditServer::AuditServer(const Configuration& configuration) : impl_(std::make_unique<Impl>(configuration)) {}

AuditServer::~AuditServer() = default;

int AuditServer::port() const {
    return impl_->port();
}

std::string AuditServer::url() const {
    return impl_->url();
}

void AuditServer::setAnswer(std::string json) {
    impl_->setAnswer(std::move(json));
}

void AuditServer::fail(Failure failure) {
    impl_->fail(std::move(failure));
}

void AuditServer::release() {
    impl_->release();
}

void AuditServer::reset() {
    impl_->reset();
}

std::vector<AuditServer::Request> AuditServer::requests() const {
    return impl_->requests();
}

std::vector<std::string> AuditServer::events() const {
    return impl_->events();
}

int AuditServer::mostAtOnce() const {
    return impl_->mostAtOnce();
}

bool AuditServer::waitForRequests(std::size_t count, std::chrono::seconds time) const {
    return impl_->waitForRequests(count, time);
}

bool AuditServer::waitForEvents(std::size_t count, std::chrono::seconds time) const {
    return impl_->waitForEvents(count, time);
}

}  // namespace sentrova::testing
