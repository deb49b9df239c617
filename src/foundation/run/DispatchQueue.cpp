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

// How the queue moves from block to block:
//
// At most one thread holds the queue (held_): the worker, or a thread inside `sync`. The holder runs one block, then
// calls passOnLocked, which hands the queue to the head of the line (waiting_):
// - A waiting `sync` call: its thread is woken. It counts as the holder from now on, so no later block overtakes it.
// - A block from `async`: the worker is woken (workerCalled_). It counts as the holder from now on, and removes the
//   block from the line when it wakes.
// - An empty line, or no thread for the worker: the queue stays free, and the worker's thread is retried later.
//
// `sync` runs its block on the caller's thread. If the queue is free and the line is empty, `sync` takes the queue at
// once, without a thread switch.
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

    // Drops the blocks in the line and keeps the waiting `sync` calls, whose threads would wait for ever otherwise. The
    // running block finishes and passes the queue to the first `sync` call. If the worker was woken and has not begun
    // its block, that block is dropped too, so the queue is free and is passed on here.
    void close() EXCLUDES(mutex_) {
        // Destroyed after the lock is released: the blocks may own objects that use the queue.
        std::deque<Item> dropped;
        std::thread worker;
        {
            MutexLock lock(mutex_);
            closed_ = true;
            for (auto& item : std::exchange(waiting_, {})) {
                (item.turn ? waiting_ : dropped).push_back(std::move(item));
            }
            if (std::exchange(workerCalled_, false)) {
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
                // A block on the worker destroys the queue. The worker's thread ends after that block.
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

    // Either a block for the worker, or a thread waiting in `sync` (`turn` is not null).
    struct Item {
        Block block;
        Turn* turn;
    };

    // Call it only while nobody holds the queue. If the head is a block and the worker has no thread, the queue stays
    // free.
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
            // Destroys the captured objects while this thread still holds the queue.
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
