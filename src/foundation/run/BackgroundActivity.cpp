#include "foundation/run/BackgroundActivity.h"

#include "foundation/run/Mutex.h"
#include "foundation/run/Threads.h"
#include "foundation/run/Timer.h"
#include "foundation/run/Unhandled.h"

#include <optional>
#include <stdexcept>

namespace sentrova {

namespace {

// If the run cannot be queued, the activity retries after this time.
constexpr std::chrono::seconds kRefusedRunDelay{1};

}  // namespace

void BackgroundQueue::close() {
    queue_.cancelAllOperations();
    queue_.waitUntilAllOperationsAreFinished();
}

class BackgroundActivity::State : public std::enable_shared_from_this<State> {
  public:
    State(BackgroundQueue& queue, std::string identifier, Clock::Duration interval, bool repeats)
        : queue_(queue),
          clock_(queue.clock()),
          identifier_(std::move(identifier)),
          interval_(interval),
          repeats_(repeats) {}

    const std::string& identifier() const { return identifier_; }
    Clock::Duration interval() const { return interval_; }
    bool repeats() const { return repeats_; }

    bool hasFurtherRun() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        switch (phase_) {
            case Phase::waiting:
            case Phase::queued:
                return true;
            case Phase::running:
                return repeats_;
            case Phase::idle:
                break;
        }
        return false;
    }

    std::optional<Date> nextRun() EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        return phase_ == Phase::waiting ? std::optional(dueDate_) : std::nullopt;
    }

    void schedule(std::function<void()> handler) EXCLUDES(mutex_) {
        auto observer = queue_.notifications().addObserver(Timer::kClockChangedNotification,
                                                           [weak = weak_from_this()](const auto&) {
                                                               if (const auto self = weak.lock()) {
                                                                   self->checkWallTime();
                                                               }
                                                           });
        MutexLock lock(mutex_);
        if (!valid_) {
            return;
        }
        due_ = clock_.monotonicTime() + interval_;
        setTimerLocked(due_);
        handler_ = std::move(handler);
        wakeObserver_ = std::move(observer);
    }

    void invalidate() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        valid_ = false;
        phase_ = Phase::idle;
        dropTimerLocked();
        // Unsubscribes after the lock is released, because the observer takes the same lock.
        const auto observer = std::move(wakeObserver_);
        lock.unlock();
    }

  private:
    enum class Phase {
        // Not scheduled yet, or no further run.
        idle,
        // A timer is set.
        waiting,
        // The operation queue has the run and has not begun it.
        queued,
        running,
    };

    void setTimerLocked(Clock::Monotonic at) REQUIRES(mutex_) {
        timer_ = clock_.schedule(at, [weak = weak_from_this(), firing = firing_ + 1] {
            if (const auto self = weak.lock()) {
                self->fire(firing);
            }
        });
        ++firing_;
        const auto delay = at - clock_.monotonicTime();
        dueDate_ = clock_.wallTime() + std::chrono::duration_cast<Date::duration>(delay);
        phase_ = Phase::waiting;
    }

    void dropTimerLocked() REQUIRES(mutex_) {
        if (timer_) {
            clock_.cancel(*timer_);
            timer_.reset();
        }
    }

    // Finds runs that fell due during sleep. The timer does not: the monotonic clock stops while the machine sleeps,
    // and the wall clock goes on.
    void checkWallTime() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        const auto date = clock_.wallTime();
        if (phase_ == Phase::waiting && date >= dueDate_) {
            dropTimerLocked();
            due_ = clock_.monotonicTime();
            queueRunLocked();
        } else if (phase_ == Phase::running &&
                   date >= dueDate_ + std::chrono::duration_cast<Date::duration>(interval_)) {
            // The next run fell due during sleep, so it follows the current run at once.
            due_ = clock_.monotonicTime() - interval_;
        }
    }

    // The clock cannot cancel a timer that it is about to call. So an old timer may fire after a wake has started the
    // run, or even after the next timer is set. The number tells: only the latest timer counts.
    void fire(std::uint64_t firing) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        if (phase_ == Phase::waiting && firing == firing_) {
            timer_.reset();
            queueRunLocked();
        }
    }

    void queueRunLocked() REQUIRES(mutex_) {
        try {
            phase_ = Phase::queued;
            queue_.operations().addOperationWithBlock([self = shared_from_this()] { self->run(); });
        } catch (const std::exception& exception) {
            reportException(identifier_, exception.what());
            phase_ = Phase::waiting;
            setTimerLocked(clock_.monotonicTime() + kRefusedRunDelay);
        }
    }

    void run() EXCLUDES(mutex_) {
        std::function<void()> handler;
        {
            MutexLock lock(mutex_);
            if (phase_ != Phase::queued) {
                return;
            }
            phase_ = Phase::running;
            handler = handler_;
        }
        runGuarded(identifier_, handler);
        retryUntilGranted(identifier_, [this] { setNext(); });
    }

    void setNext() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        if (!valid_ || !repeats_) {
            phase_ = Phase::idle;
            return;
        }
        const auto now = clock_.monotonicTime();
        auto next = due_ + interval_;
        if (next < now) {
            next += (now - next) / interval_ * interval_;
        }
        setTimerLocked(next);
        due_ = next;
    }

    BackgroundQueue& queue_;
    Clock& clock_;
    const std::string identifier_;
    const Clock::Duration interval_;
    const bool repeats_;

    Mutex mutex_{LockRank::schedule};
    std::function<void()> handler_ GUARDED_BY(mutex_);
    Subscription wakeObserver_ GUARDED_BY(mutex_);
    bool valid_ GUARDED_BY(mutex_) = true;
    Phase phase_ GUARDED_BY(mutex_) = Phase::idle;
    std::optional<Clock::TimerId> timer_ GUARDED_BY(mutex_);
    // The number of the latest timer; counts up with each timer set.
    std::uint64_t firing_ GUARDED_BY(mutex_) = 0;
    // When the next run, or the run in progress, is due: on the monotonic clock and on the wall clock.
    Clock::Monotonic due_ GUARDED_BY(mutex_);
    Date dueDate_ GUARDED_BY(mutex_);
};

BackgroundActivity::BackgroundActivity(BackgroundQueue& queue, std::string identifier, Clock::Duration interval,
                                       bool repeats) {
    if (interval <= Clock::Duration::zero()) {
        throw std::invalid_argument("the interval of \"" + identifier + "\" is not above zero");
    }
    state_ = std::make_shared<State>(queue, std::move(identifier), interval, repeats);
}

BackgroundActivity::~BackgroundActivity() {
    if (state_) {
        state_->invalidate();
    }
}

const std::string& BackgroundActivity::identifier() const {
    return state_->identifier();
}

Clock::Duration BackgroundActivity::interval() const {
    return state_->interval();
}

bool BackgroundActivity::repeats() const {
    return state_->repeats();
}

bool BackgroundActivity::hasFurtherRun() const {
    return state_->hasFurtherRun();
}

std::optional<Date> BackgroundActivity::nextRun() const {
    return state_->nextRun();
}

void BackgroundActivity::schedule(std::function<void()> handler) {
    state_->schedule(std::move(handler));
}

void BackgroundActivity::invalidate() {
    state_->invalidate();
}

}  // namespace sentrova
