#include "platform/curl/CurlUrlSession.h"

#include "foundation/run/Clock.h"
#include "foundation/run/DispatchQueue.h"
#include "foundation/run/Mutex.h"
#include "foundation/run/Threads.h"
#include "foundation/run/Unhandled.h"
#include "platform/curl/CurlTransfer.h"

#include <signal.h>

#include <algorithm>
#include <exception>
#include <limits>
#include <list>
#include <map>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include <curl/curl.h>

namespace sentrova::platform {

namespace {

constexpr const char* kThreadName = "network thread";
constexpr const char* kLookUpName = "look-up of a host";

// In milliseconds: the longest wait that the library accepts, 24 days. Sockets, mail and the library's own timers end
// it early.
constexpr int kNoTimeLimit = std::numeric_limits<int>::max();
// After a failed turn (out of memory, for example), the rest of its work is retried after this time.
constexpr int kTriedAgainAfterMs = 1000;
// The library gives up an address that does not answer, but tries the next one only when it is called again, and sets
// no timer for that. So it is called this often while addresses are being tried.
constexpr int kNextAddressWithinMs = 250;

// Passes requests and look-up results from other threads to the network thread, and wakes it. Safe from any thread.
class Mailbox {
  public:
    struct LookUp {
        std::string host;
        AddressList addresses;
    };
    struct Mail {
        std::list<std::unique_ptr<CurlTransfer>> transfers;
        std::vector<LookUp> lookUps;
        bool stop = false;
    };

    explicit Mailbox(CURLM* sleeper) : sleeper_(sleeper) {}

    void post(std::unique_ptr<CurlTransfer> transfer) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        mail_.transfers.push_back(std::move(transfer));
        wakeLocked();
    }

    void post(LookUp lookUp) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        if (sleeper_) {
            mail_.lookUps.push_back(std::move(lookUp));
            wakeLocked();
        }
    }

    void postStop() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        mail_.stop = true;
        wakeLocked();
    }

    void wake() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        wakeLocked();
    }

    Mail take() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return std::exchange(mail_, {});
    }

    // From now on the network thread is not woken.
    void close() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        sleeper_ = nullptr;
    }

  private:
    void wakeLocked() REQUIRES(mutex_) {
        if (sleeper_) {
            curl_multi_wakeup(sleeper_);
        }
    }

    Mutex mutex_;
    Mail mail_ GUARDED_BY(mutex_);
    CURLM* sleeper_ GUARDED_BY(mutex_);
};

// Without this, a write to a connection that the server has closed would end the process.
void blockBrokenPipeSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

CURLM* makeMultiHandle() {
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    auto* const multi = initialised == CURLE_OK ? curl_multi_init() : nullptr;
    if (!multi) {
        throw std::runtime_error("The network library cannot be initialised.");
    }
    return multi;
}

}  // namespace

// Only the network thread uses the members below mailbox_.
class CurlUrlSession::Engine final : public CurlTransfer::Session {
  public:
    Engine(Clock& clock, const Configuration& configuration)
        : clock_(clock), configuration_(configuration), completions_("url session delegate queue", clock) {
        // Keeps the connections to the server's current address and to the previous one.
        curl_multi_setopt(multi_.get(), CURLMOPT_MAXCONNECTS, 2L * configuration.maximumConnectionsPerHost);
    }

    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    ~Engine() override {
        mailbox_->postStop();
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    void start() {
        thread_ = startThread([this] { run(); });
    }

    void add(const UrlRequest& request, CurlTransfer::Body body, Completion completion) {
        auto address = CurlTransfer::addressOf(request);
        if (!address) {
            complete(std::make_shared<const Completion>(std::move(completion)), {{}, {}, address.error()});
            return;
        }
        mailbox_->post(std::make_unique<CurlTransfer>(
            *std::move(address), request, std::move(body), std::move(completion),
            CurlTransfer::Limits{configuration_.maximumAnswer, configuration_.totalTime}));
    }

    Clock::Monotonic now() const override { return now_; }
    Date wallTime() const override { return clock_.wallTime(); }

  private:
    // The requests to one server: the number in flight, and those that wait for a free connection.
    struct Line {
        int active = 0;
        std::list<std::unique_ptr<CurlTransfer>> waiting;
    };
    struct MultiDeleter {
        void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
    };

    void run() {
        blockBrokenPipeSignal();
        while (!stopped_) {
            const int timeLimit = longestWait();
            isUnfinished_ = true;
            runGuarded(kThreadName, [this, timeLimit] {
                turn(timeLimit);
                isUnfinished_ = false;
            });
        }
        cancelTimer();
        for (const auto& [id, transfer] : active_) {
            withdraw(*transfer);
        }
        active_.clear();
        lines_.clear();
        arrived_.clear();
        mailbox_->close();
        multi_.reset();
    }

    int longestWait() const {
        const bool triesAddresses =
            std::ranges::any_of(active_, [](const auto& entry) { return entry.second->isTryingAddresses(); });
        const bool hasToTryAgain = isUnfinished_ || !refused_.empty();
        return triesAddresses ? kNextAddressWithinMs : hasToTryAgain ? kTriedAgainAfterMs : kNoTimeLimit;
    }

    void turn(int timeLimit) {
        curl_multi_poll(multi_.get(), nullptr, 0, timeLimit, nullptr);
        auto mail = mailbox_->take();
        arrived_.splice(arrived_.end(), mail.transfers);
        stopped_ = mail.stop;
        if (stopped_) {
            return;
        }
        // Read before anything is sent, so that progress is never noted later than it happened.
        now_ = clock_.monotonicTime();
        while (!arrived_.empty()) {
            auto& waiting = lines_[arrived_.front()->origin()].waiting;
            waiting.splice(waiting.end(), arrived_, arrived_.begin());
        }
        for (const auto& lookUp : mail.lookUps) {
            accept(lookUp);
        }
        for (const auto& host : std::set(refused_)) {
            lookUp(host);
        }
        int running = 0;
        curl_multi_perform(multi_.get(), &running);
        collectEnded();
        expireOverdue();
        advanceLines();
        armTimer();
    }

    // Starts waiting requests while their server has free connections. Adding a handle ends the next poll at once, so
    // the library works on it without delay.
    void advanceLines() {
        for (auto& [origin, line] : lines_) {
            while (!line.waiting.empty() && line.active < configuration_.maximumConnectionsPerHost) {
                auto& transfer = *line.waiting.front();
                transfer.comeToTurn(*this);
                active_.emplace(transfer.id(), std::move(line.waiting.front()));
                ++line.active;
                line.waiting.pop_front();
                drive(transfer);
            }
        }
        std::erase_if(lines_,
                      [](const auto& entry) { return entry.second.active == 0 && entry.second.waiting.empty(); });
    }

    // Connects the transfer if the addresses of its host are known. Otherwise starts a look-up, whose result calls this
    // function again.
    void drive(CurlTransfer& transfer) {
        try {
            if (isNumericHost(transfer.host())) {
                connect(transfer, {});
            } else if (const auto* addresses = hosts_.find(transfer.host(), now_)) {
                connect(transfer, *addresses);
            } else {
                lookUp(transfer.host());
            }
        } catch (const std::exception& exception) {
            reportException(kThreadName, exception.what());
            finish(transfer, {{}, {}, urlError(UrlErrorCode::unknown)});
        }
    }

    void connect(CurlTransfer& transfer, const AddressList& addresses) {
        if (const auto code = curl_multi_add_handle(multi_.get(), transfer.begin(addresses)); code != CURLM_OK) {
            throw std::runtime_error(curl_multi_strerror(code));
        }
    }

    // Runs at most one look-up per host. Its thread is detached, because a resolver may block for minutes. While the
    // system refuses the thread, the look-up is retried in each turn, and the requests wait.
    void lookUp(const std::string& host) {
        if (lookedUp_.contains(host)) {
            return;
        }
        auto thread = tryStartThread([host, resolver = configuration_.resolver, mailbox = std::weak_ptr(mailbox_)] {
            Mailbox::LookUp result{host, {}};
            runGuarded(kLookUpName, [&] { result.addresses = resolver(host); });
            if (const auto open = mailbox.lock()) {
                open->post(std::move(result));
            }
        });
        if (thread.joinable()) {
            thread.detach();
            refused_.erase(host);
            lookedUp_.insert(host);
        } else if (refused_.insert(host).second) {
            reportException(kLookUpName, "No thread could be started; the look-up is queued and retried");
        }
    }

    void accept(const Mailbox::LookUp& result) {
        lookedUp_.erase(result.host);
        const bool isFound = !result.addresses.empty();
        if (isFound) {
            hosts_.store(result.host, result.addresses, now_);
        }
        std::vector<CurlTransfer*> waiting;
        for (const auto& [id, transfer] : active_) {
            if (transfer->host() == result.host && !transfer->underWay() && !transfer->hasEnded()) {
                waiting.push_back(transfer.get());
            }
        }
        for (auto* const transfer : waiting) {
            if (isFound) {
                drive(*transfer);
            } else {
                finish(*transfer, {{}, {}, urlError(UrlErrorCode::cannotFindHost)});
            }
        }
    }

    void withdraw(CurlTransfer& transfer) {
        if (auto* const handle = transfer.underWay()) {
            curl_multi_remove_handle(multi_.get(), handle);
        }
    }

    void collectEnded() {
        int left = 0;
        while (const auto* message = curl_multi_info_read(multi_.get(), &left)) {
            // Copied first: removing the handle destroys the message.
            auto* const handle = message->easy_handle;
            const auto code = message->data.result;
            CurlTransfer* transfer = nullptr;
            curl_easy_getinfo(handle, CURLINFO_PRIVATE, &transfer);
            curl_multi_remove_handle(multi_.get(), handle);
            transfer->ended(code);
            if (transfer->outcome().response) {
                hosts_.noteAnswer(transfer->host(), transfer->connectedAddress());
            }
            if (!transfer->isHeld()) {
                finish(*transfer, std::move(transfer->outcome()));
            }
        }
    }

    // If queueing the completion throws, the transfer stays active. It is completed later, as overdue.
    void finish(CurlTransfer& transfer, CurlTransfer::Outcome outcome) {
        complete(transfer.completion(), std::move(outcome));
        --lines_[transfer.origin()].active;
        active_.erase(transfer.id());
    }

    void complete(std::shared_ptr<const Completion> completion, CurlTransfer::Outcome outcome) {
        completions_.async([completion = std::move(completion), outcome = std::move(outcome)] {
            (*completion)(outcome.data, outcome.response, outcome.error);
        });
    }

    void expireOverdue() {
        std::vector<CurlTransfer*> overdue;
        for (const auto& [id, transfer] : active_) {
            if (transfer->due() <= now_) {
                overdue.push_back(transfer.get());
            }
        }
        for (auto* const transfer : overdue) {
            withdraw(*transfer);
            finish(*transfer, {{}, {}, urlError(UrlErrorCode::timedOut)});
        }
    }

    // One timer, for the transfer that is due first. Progress only moves due times back, so a timer may fire too early.
    // It then finds nothing overdue and is set again.
    void armTimer() {
        const auto first = std::ranges::min_element(active_, {}, [](const auto& entry) { return entry.second->due(); });
        if (first == active_.end()) {
            cancelTimer();
            return;
        }
        const auto due = first->second->due();
        if (timer_ && timerDue_ > now_ && timerDue_ <= due) {
            return;
        }
        cancelTimer();
        timerDue_ = due;
        timer_ = clock_.schedule(due, [mailbox = std::weak_ptr(mailbox_)] {
            if (const auto open = mailbox.lock()) {
                open->wake();
            }
        });
    }

    void cancelTimer() {
        if (timer_) {
            clock_.cancel(*timer_);
            timer_.reset();
        }
    }

    Clock& clock_;
    const Configuration configuration_;
    DispatchQueue completions_;

    std::unique_ptr<CURLM, MultiDeleter> multi_{makeMultiHandle()};
    const std::shared_ptr<Mailbox> mailbox_ = std::make_shared<Mailbox>(multi_.get());
    HostAddresses hosts_;
    // The hosts with a look-up in progress.
    std::set<std::string> lookedUp_;
    // The hosts whose look-up was refused a thread and is retried.
    std::set<std::string> refused_;
    // Requests that are not in a line yet.
    std::list<std::unique_ptr<CurlTransfer>> arrived_;
    std::map<std::string, Line> lines_;
    // The requests in flight, by id: in the multi handle, waiting for a look-up, or held until they are due.
    std::map<std::uint64_t, std::unique_ptr<CurlTransfer>> active_;
    std::optional<Clock::TimerId> timer_;
    Clock::Monotonic timerDue_;
    Clock::Monotonic now_;
    bool stopped_ = false;
    bool isUnfinished_ = false;
    std::thread thread_;
};

CurlUrlSession::CurlUrlSession(Clock& clock, const Configuration& configuration)
    : engine_(std::make_unique<Engine>(clock, configuration)) {}

CurlUrlSession::~CurlUrlSession() = default;

void CurlUrlSession::start() {
    engine_->start();
}

void CurlUrlSession::uploadTask(const UrlRequest& request, std::string body, Completion completionHandler) {
    engine_->add(request, std::make_shared<const std::string>(std::move(body)), std::move(completionHandler));
}

void CurlUrlSession::uploadShared(const UrlRequest& request, const std::shared_ptr<const std::string>& body,
                                  Completion completionHandler) {
    engine_->add(request, body, std::move(completionHandler));
}

}  // namespace sentrova::platform
