#include "foundation/run/OperationQueue.h"

#include "foundation/run/Mutex.h"
#include "foundation/run/Threads.h"
#include "foundation/run/Unhandled.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <list>
#include <thread>

namespace sentrova {

namespace {

class BlockOperation final : public Operation {
  public:
    explicit BlockOperation(std::function<void()> block) : block_(std::move(block)) {}

    bool isFinished() const override { return finished_; }
    bool isExecuting() const override { return executing_; }
    bool isCancelled() const override { return cancelled_; }

    void start() override {
        if (!cancelled_) {
            change(kIsExecuting, executing_, true);
            runGuarded("BlockOperation", block_);
            change(kIsExecuting, executing_, false);
        }
        change(kIsFinished, finished_, true);
    }

    void cancel() override { change(kIsCancelled, cancelled_, true); }

  protected:
    void finishFailed() override { change(kIsFinished, finished_, true); }

  private:
    void change(const char* key, std::atomic<bool>& flag, bool value) {
        willChangeValueForKey(key);
        flag = value;
        didChangeValueForKey(key);
    }

    const std::function<void()> block_;
    std::atomic<bool> finished_ = false;
    std::atomic<bool> executing_ = false;
    std::atomic<bool> cancelled_ = false;
};

}  // namespace

// How the queue finds work:
//
// entries_ holds the unfinished operations in the order of their addition. An entry is ready if it is not started and
// either all its dependencies are finished or it is cancelled. running_ counts the operations that are started and not
// finished; at limit_ nothing starts.
//
// A worker thread calls `start` of one operation, then takes the first ready entry itself, and ends if there is none.
// startWorkersLocked starts one more thread for each entry that is still ready. It runs after every event that can make
// an entry ready: an addition, a finish, a cancellation, a higher limit, the retry of a refused thread.
//
// Most operations finish inside their own `start`. checkFinished then starts no worker: the current worker takes the
// next entry as soon as `start` returns, and a new thread would only compete with it for that entry.
class OperationQueue::State : public std::enable_shared_from_this<State> {
  public:
    explicit State(Clock& clock) : retry_(clock) {}

    void setLimit(int count) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        limit_ = static_cast<std::size_t>(std::max(count, 1));
        startWorkersLocked();
    }

    void add(const std::shared_ptr<Operation>& operation) EXCLUDES(mutex_) {
        Entry entry{operation, false, {}};
        const auto follow = [this, &entry](const std::shared_ptr<Operation>& source, const char* key, auto reaction) {
            entry.subscriptions.push_back(
                source->observe(key, [weak = weak_from_this(), reaction](const KeyValueChange&) {
                    if (const auto self = weak.lock()) {
                        reaction(*self);
                    }
                }));
        };
        follow(operation, Operation::kIsFinished, [raw = operation.get()](State& self) { self.checkFinished(raw); });
        const auto dependencies = operation->dependencies();
        for (const auto& dependency : dependencies) {
            follow(dependency, Operation::kIsFinished, [](State& self) { self.checkReady(); });
        }
        if (!dependencies.empty()) {
            follow(operation, Operation::kIsCancelled, [](State& self) { self.checkReady(); });
        }
        {
            MutexLock lock(mutex_);
            if (closed_) {
                return;
            }
            entries_.push_back(std::move(entry));
        }
        // The operation may have finished before the subscription began, without a notification.
        if (operation->isFinished()) {
            checkFinished(operation.get());
        } else {
            checkReady();
        }
    }

    std::vector<std::shared_ptr<Operation>> operations() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        std::vector<std::shared_ptr<Operation>> list;
        list.reserve(entries_.size());
        std::ranges::transform(entries_, std::back_inserter(list), &Entry::operation);
        return list;
    }

    std::size_t count() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return entries_.size();
    }

    void waitUntilEmpty() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        while (!entries_.empty()) {
            changed_.wait(lock);
        }
    }

    void close() EXCLUDES(mutex_) {
        std::list<Entry> dropped;
        MutexLock lock(mutex_);
        closed_ = true;
        dropped.swap(entries_);
        changed_.notifyAll();
        const std::size_t own = working_.queue == this ? 1 : 0;
        while (workers_ > own) {
            changed_.wait(lock);
        }
        lock.unlock();
    }

  private:
    struct Entry {
        std::shared_ptr<Operation> operation;
        bool started;
        std::vector<Subscription> subscriptions;
    };

    void checkReady() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        startWorkersLocked();
    }

    void checkFinished(const Operation* operation) EXCLUDES(mutex_) {
        if (!operation->isFinished()) {
            return;
        }
        Entry done;
        MutexLock lock(mutex_);
        const auto entry = std::ranges::find(entries_, operation, [](const Entry& e) { return e.operation.get(); });
        if (entry == entries_.end()) {
            return;
        }
        // Released after the lock: it may be the last reference, and the operation's destructor may run any code.
        done = std::move(*entry);
        running_ -= done.started ? 1 : 0;
        entries_.erase(entry);
        changed_.notifyAll();
        // Not for an operation that finishes inside its own start: see above.
        if (working_.operation != operation) {
            startWorkersLocked();
        }
        lock.unlock();
    }

    bool isReady(const Entry& entry) const {
        if (entry.started) {
            return false;
        }
        return entry.operation->isCancelled() ||
               std::ranges::all_of(entry.operation->dependencies(),
                                   [](const auto& dependency) { return dependency->isFinished(); });
    }

    // The first ready entry; null if there is none or the limit is reached.
    Entry* firstReadyLocked() REQUIRES(mutex_) {
        if (closed_ || running_ >= limit_) {
            return nullptr;
        }
        const auto entry = std::ranges::find_if(entries_, [this](const Entry& e) { return isReady(e); });
        return entry == entries_.end() ? nullptr : &*entry;
    }

    std::shared_ptr<Operation> takeReadyLocked() REQUIRES(mutex_) {
        auto* const entry = firstReadyLocked();
        if (!entry) {
            return nullptr;
        }
        markStartedLocked(*entry);
        return entry->operation;
    }

    void markStartedLocked(Entry& entry) REQUIRES(mutex_) {
        entry.started = true;
        ++running_;
    }

    void startWorkersLocked() REQUIRES(mutex_) {
        while (auto* const entry = firstReadyLocked()) {
            // The operation may finish at once, but checkFinished needs the lock. So the entry stays valid here.
            auto worker = tryStartThread([self = shared_from_this(), operation = entry->operation]() mutable {
                self->work(std::move(operation));
            });
            if (!worker.joinable()) {
                retry_.later([weak = weak_from_this()] {
                    if (const auto self = weak.lock()) {
                        self->checkReady();
                    }
                });
                return;
            }
            worker.detach();
            markStartedLocked(*entry);
            ++workers_;
        }
        // Every ready entry has a thread.
        retry_.succeeded();
    }

    void work(std::shared_ptr<Operation> operation) EXCLUDES(mutex_) {
        while (operation) {
            working_ = {this, operation.get()};
            operation->run();
            operation.reset();
            MutexLock lock(mutex_);
            operation = takeReadyLocked();
            startWorkersLocked();
            if (!operation) {
                --workers_;
                changed_.notifyAll();
            }
        }
        working_ = {};
    }

    // The current thread's work: its queue, and the operation whose start it is inside. Null on other threads.
    struct Work {
        const State* queue = nullptr;
        const Operation* operation = nullptr;
    };
    static thread_local Work working_;

    Mutex mutex_{LockRank::queue};
    Condition changed_;
    std::list<Entry> entries_ GUARDED_BY(mutex_);
    std::size_t limit_ GUARDED_BY(mutex_) = std::numeric_limits<std::size_t>::max();
    std::size_t running_ GUARDED_BY(mutex_) = 0;
    std::size_t workers_ GUARDED_BY(mutex_) = 0;
    bool closed_ GUARDED_BY(mutex_) = false;
    ThreadRetry retry_ GUARDED_BY(mutex_);
};

thread_local OperationQueue::State::Work OperationQueue::State::working_;

OperationQueue::OperationQueue(Clock& clock) : state_(std::make_shared<State>(clock)) {}

OperationQueue::~OperationQueue() {
    close();
}

void OperationQueue::setMaxConcurrentOperationCount(int count) {
    state_->setLimit(count);
}

void OperationQueue::addOperation(const std::shared_ptr<Operation>& operation) {
    if (!operation->isFinished()) {
        state_->add(operation);
    }
}

void OperationQueue::addOperationWithBlock(std::function<void()> block) {
    addOperation(std::make_shared<BlockOperation>(std::move(block)));
}

std::vector<std::shared_ptr<Operation>> OperationQueue::operations() const {
    return state_->operations();
}

std::size_t OperationQueue::operationCount() const {
    return state_->count();
}

void OperationQueue::cancelAllOperations() {
    for (const auto& operation : operations()) {
        runGuarded(operation->name(), [&operation] { operation->cancel(); });
    }
}

void OperationQueue::waitUntilAllOperationsAreFinished() {
    state_->waitUntilEmpty();
}

void OperationQueue::close() {
    state_->close();
}

}  // namespace sentrova
