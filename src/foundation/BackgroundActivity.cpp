#include "foundation/BackgroundActivity.h"

#include "foundation/Mutex.h"
#include "foundation/NotificationCenter.h"
#include "foundation/OperationQueue.h"
#include "foundation/ProcessWide.h"
#include "foundation/Timer.h"

#include <optional>
#include <stdexcept>

namespace sentrova {

namespace {

// The threads of all activities; there is one for each run under way.
struct BackgroundService {
    // Waits for the runs under way.
    void quiesce() {
        queue.cancelAllOperations();
        queue.waitUntilAllOperationsAreFinished();
    }

    OperationQueue queue;
};

ProcessWide<BackgroundService> theService;

}  // namespace

class BackgroundActivity::State : public std::enable_shared_from_this<State> {
  public:
    State(std::string identifier, Clock::Duration interval, bool repeats)
        : identifier_(std::move(identifier)), interval_(interval), repeats_(repeats) {}

    const std::string& identifier() const { return identifier_; }

    void schedule(std::function<void()> handler) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        handler_ = std::move(handler);
        wakeObserver_ = NotificationCenter::defaultCenter().addObserver(Timer::kClockChangedNotification,
                                                                        [weak = weak_from_this()](const auto&) {
                                                                            if (const auto self = weak.lock()) {
                                                                                self->checkWallTime();
                                                                            }
                                                                        });
        setTimerLocked(Clock::shared().monotonicTime() + interval_);
    }

    void invalidate() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        valid_ = false;
        dropTimerLocked();
        // Unsubscribed after the lock: the observer takes it.
        const auto observer = std::move(wakeObserver_);
        lock.unlock();
    }

  private:
    void setTimerLocked(Clock::Monotonic due) REQUIRES(mutex_) {
        due_ = due;
        const auto delay = due - Clock::shared().monotonicTime();
        dueDate_ = Clock::shared().wallTime() + std::chrono::duration_cast<Date::duration>(delay);
        timer_ = Clock::shared().schedule(due, [weak = weak_from_this()] {
            if (const auto self = weak.lock()) {
                self->fire();
            }
        });
    }

    void dropTimerLocked() REQUIRES(mutex_) {
        if (timer_) {
            Clock::shared().cancel(*timer_);
            timer_.reset();
        }
    }

    // The monotonic clock stands still while the machine sleeps, the date does not.
    void checkWallTime() EXCLUDES(mutex_) {
        {
            MutexLock lock(mutex_);
            if (!valid_ || !timer_ || Clock::shared().wallTime() < dueDate_) {
                return;
            }
            dropTimerLocked();
            due_ = Clock::shared().monotonicTime();
        }
        fire();
    }

    void fire() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        timer_.reset();
        if (valid_) {
            theService.get().queue.addOperationWithBlock([self = shared_from_this()] { self->run(); });
        }
    }

    void run() EXCLUDES(mutex_) {
        std::function<void()> handler;
        {
            MutexLock lock(mutex_);
            if (!valid_) {
                return;
            }
            handler = handler_;
        }
        // The next run is set whatever becomes of this one.
        const std::unique_ptr<State, void (*)(State*)> atEnd(this, [](State* self) { self->setNext(); });
        handler();
    }

    void setNext() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        if (!valid_ || !repeats_) {
            return;
        }
        const auto now = Clock::shared().monotonicTime();
        auto next = due_ + interval_;
        if (next < now) {
            next += (now - next) / interval_ * interval_;
        }
        setTimerLocked(next);
    }

    const std::string identifier_;
    const Clock::Duration interval_;
    const bool repeats_;

    Mutex mutex_{LockRank::schedule};
    std::function<void()> handler_ GUARDED_BY(mutex_);
    Subscription wakeObserver_ GUARDED_BY(mutex_);
    bool valid_ GUARDED_BY(mutex_) = true;
    std::optional<Clock::TimerId> timer_ GUARDED_BY(mutex_);
    Clock::Monotonic due_ GUARDED_BY(mutex_);
    Date dueDate_ GUARDED_BY(mutex_);
};

BackgroundActivity::BackgroundActivity(std::string identifier, Clock::Duration interval, bool repeats) {
    if (interval <= Clock::Duration::zero()) {
        throw std::invalid_argument("the interval of \"" + identifier + "\" is not above zero");
    }
    state_ = std::make_shared<State>(std::move(identifier), interval, repeats);
}

BackgroundActivity::~BackgroundActivity() {
    if (state_) {
        state_->invalidate();
    }
}

const std::string& BackgroundActivity::identifier() const {
    return state_->identifier();
}

void BackgroundActivity::schedule(std::function<void()> handler) {
    state_->schedule(std::move(handler));
}

void BackgroundActivity::invalidate() {
    state_->invalidate();
}

}  // namespace sentrova
