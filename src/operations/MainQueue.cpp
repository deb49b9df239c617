#include "operations/MainQueue.h"

#include "core/LogSource.h"

#include <utility>

namespace sentrova {

namespace {
// The log shows the stop under the name of the service.
constexpr LogSource kLog("AgentServiceHandler");
}  // namespace

void MainQueue::close() {
    std::shared_ptr<OperationsHandler> queue;
    {
        MutexLock lock(mutex_);
        queue = std::move(queue_);
    }
    // Closed here, because an operation may still hold a reference to the queue and delay its destructor.
    if (queue) {
        queue->close();
    }
}

std::shared_ptr<OperationsHandler> MainQueue::current() {
    MutexLock lock(mutex_);
    return queue_;
}

std::shared_ptr<OperationsHandler> MainQueue::open() {
    auto queue = std::make_shared<OperationsHandler>(-1, clock_);
    auto opened = queue;
    MutexLock lock(mutex_);
    // The earlier queue is destroyed after the lock is released.
    std::swap(queue_, queue);
    lock.unlock();
    return opened;
}

void MainQueue::add(const std::shared_ptr<ConcurrentOperationAbstract>& operation) {
    const auto queue = current();
    if (!queue || stopAsked_) {
        return;
    }
    queue->addToOperationQueue(operation);
    // A stop since the check above may have cancelled the queue's operations before this one was added.
    if (stopAsked_) {
        queue->suspend();
    }
}

void MainQueue::cancel(std::string_view name) {
    if (const auto queue = current()) {
        queue->cancelOperationWithName(name);
    }
}

bool MainQueue::isExecuting(std::string_view name) {
    const auto queue = current();
    return queue && queue->getTaskStatus(name);
}

void MainQueue::stop() {
    kLog.info("AgentServiceHandler stop called");
    stopAsked_ = true;
    if (const auto queue = current()) {
        queue->suspend();
    }
}

}  // namespace sentrova
