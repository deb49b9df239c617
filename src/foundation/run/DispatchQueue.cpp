#include "foundation/run/DispatchQueue.h"

#include "foundation/run/Mutex.h"
#include "foundation/run/Threads.h"
#include "foundation/run/Unhandled.h"

#include <atomic>
#include <deque>
#include <exception>
#include <stdexcept>
#include <thread>
#include <utility>

namespace sentrova {

// The queue hands itself from one holder to the next: the thread that calls `sync`, or its own worker. Whoever holds
// it runs exactly the block at the head, then passes it on.
class DispatchQueue::State : public std::enable_shared_from_this<State> {
  public:
    State(std::string label, Clock& clock) : label_(std::move(label)), clock_(clock), retry_(clock) {}

    Clock& clock() const { return clock_; }
    const std::string& label() const { return label_; }

    bool isCurrent() const { return holder_.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

    void async(Block block) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        if (closed_) {
            return;
        }
        waiting_.push_back({std::move(block), nullptr});
        if (!held_) {
            passOnLocked();
        }
    }

    void sync(const Block& block) EXCLUDES(mutex_) {
        if (isCurrent()) {
            throw std::logic_error("sync on the queue \"" + label_ + "\" from one of its own blocks");
        }
        MutexLock lock(mutex_);
        if (held_ || !waiting_.empty()) {
            Turn turn;
            waiting_.push_back({nullptr, &turn});
            if (!held_) {
                passOnLocked();
            }
            while (!turn.come) {
                turn.changed.wait(lock);
            }
        }
        held_ = true;
        holder_ = std::this_thread::get_id();
        lock.unlock();

        std::exception_ptr thrown;
        try {
            block();
        } catch (...) {
            thrown = std::current_exception();
        }

        lock.lock();
        holder_ = std::thread::id();
        held_ = false;
        passOnLocked();
        lock.unlock();
        if (thrown) {
            std::rethrow_exception(thrown);
        }
    }

    void close() EXCLUDES(mutex_) {
        std::deque<Item> dropped;
        std::thread worker;
        {
            MutexLock lock(mutex_);
            closed_ = true;
            for (auto& item : std::exchange(waiting_, {})) {
                (item.turn ? waiting_ : dropped).push_back(std::move(item));
            }
            if (std::exchange(workerCalled_, false)) {
                // The block for which it was called has not begun, and is dropped.
                held_ = false;
            }
            if (!held_) {
                passOnLocked();
            }
            worker = std::move(worker_);
            workerChanged_.notifyAll();
        }
        if (worker.joinable()) {
            if (worker.get_id() == std::this_thread::get_id()) {
                // The queue goes with the last block that held it; its thread ends after that block.
                worker.detach();
            } else {
                worker.join();
            }
        }
    }

  private:
    struct Turn {
        Condition changed;
        bool come = false;
    };

    // Either a block for the worker or the turn of a thread that waits in `sync`.
    struct Item {
        Block block;
        Turn* turn;
    };

    // The queue is not held. It stays so when the block at the head finds no thread.
    void passOnLocked() REQUIRES(mutex_) {
        if (waiting_.empty()) {
            return;
        }
        if (auto* turn = waiting_.front().turn) {
            held_ = true;
            waiting_.pop_front();
            turn->come = true;
            turn->changed.notifyOne();
        } else if (hasWorkerLocked()) {
            held_ = true;
            workerCalled_ = true;
            workerChanged_.notifyOne();
        }
    }

    bool hasWorkerLocked() REQUIRES(mutex_) {
        if (worker_.joinable()) {
            return true;
        }
        worker_ = tryStartThread([self = shared_from_this()] { self->work(); });
        if (!worker_.joinable()) {
            retry_.later([weak = weak_from_this()] {
                if (const auto self = weak.lock()) {
                    self->tryAgain();
                }
            });
            return false;
        }
        retry_.succeeded();
        return true;
    }

    void tryAgain() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        if (!held_) {
            passOnLocked();
        }
    }

    void work() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        for (;;) {
            while (!workerCalled_ && !closed_) {
                workerChanged_.wait(lock);
            }
            if (closed_) {
                return;
            }
            workerCalled_ = false;
            Block block = std::move(waiting_.front().block);
            waiting_.pop_front();
            holder_ = std::this_thread::get_id();
            lock.unlock();

            runGuarded(label_, block);
            // Before the queue is passed on: what the block captured belongs to its turn.
            block = nullptr;

            lock.lock();
            holder_ = std::thread::id();
            held_ = false;
            passOnLocked();
        }
    }

    const std::string label_;
    Clock& clock_;
    std::atomic<std::thread::id> holder_;

    Mutex mutex_;
    std::deque<Item> waiting_ GUARDED_BY(mutex_);
    bool held_ GUARDED_BY(mutex_) = false;
    bool closed_ GUARDED_BY(mutex_) = false;
    bool workerCalled_ GUARDED_BY(mutex_) = false;
    Condition workerChanged_;
    std::thread worker_ GUARDED_BY(mutex_);
    ThreadRetry retry_ GUARDED_BY(mutex_);
};

DispatchQueue::DispatchQueue(std::string label, Clock& clock)
    : state_(std::make_shared<State>(std::move(label), clock)) {}

DispatchQueue::~DispatchQueue() {
    close();
}

const std::string& DispatchQueue::label() const {
    return state_->label();
}

void DispatchQueue::async(Block block) {
    state_->async(std::move(block));
}

void DispatchQueue::sync(const Block& block) {
    state_->sync(block);
}

void DispatchQueue::after(Clock::Duration delay, Block block) {
    state_->clock().after(delay, [weak = std::weak_ptr(state_), block = std::move(block)]() mutable {
        if (const auto state = weak.lock()) {
            state->async(std::move(block));
        }
    });
}

void DispatchQueue::close() {
    state_->close();
}

bool DispatchQueue::isCurrent() const {
    return state_->isCurrent();
}

}  // namespace sentrova
