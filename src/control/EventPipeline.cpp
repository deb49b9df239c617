#include "control/EventPipeline.h"

#include "foundation/run/Threads.h"

#include <string>
#include <utility>

namespace sentrova::control {

EventPipeline::EventPipeline(EventWriter& writer, Console& console) : writer_(writer), console_(console) {
    filling_.reserve(kBatch);
    thread_ = startThread([this] { run(); });
}

void EventPipeline::add(Dictionary event) {
    filling_.emplace_back(std::move(event));
    if (filling_.size() == kBatch) {
        hand(std::exchange(filling_, {}));
        filling_.reserve(kBatch);
    }
}

void EventPipeline::hand(Batch batch) {
    MutexLock lock(mutex_);
    while (queue_.size() >= kMostBatches) {
        changed_.wait(lock);
    }
    queue_.push_back(std::move(batch));
    changed_.notifyAll();
}

void EventPipeline::finish() {
    if (!thread_.joinable()) {
        return;
    }
    hand(std::move(filling_));
    {
        MutexLock lock(mutex_);
        isComplete_ = true;
        changed_.notifyAll();
    }
    thread_.join();
}

void EventPipeline::run() {
    std::string head;
    writer_.begin(head);
    console_.print(head);
    MutexLock lock(mutex_);
    for (;;) {
        while (queue_.empty() && !isComplete_) {
            changed_.wait(lock);
        }
        if (queue_.empty()) {
            break;
        }
        const auto batch = std::move(queue_.front());
        queue_.pop_front();
        changed_.notifyAll();
        lock.unlock();
        write(batch);
        lock.lock();
    }
    lock.unlock();
    std::string tail;
    writer_.end(tail);
    console_.print(tail);
    hasFailed_ = !console_.flush() || hasFailed_;
}

void EventPipeline::write(const Batch& batch) {
    if (hasFailed_) {
        return;
    }
    std::string text;
    for (const auto& event : batch) {
        writer_.write(event, text);
    }
    console_.print(text);
    hasFailed_ = !console_.flush();
}

}  // namespace sentrova::control
