#include "operations/DailyTimers.h"

#include "foundation/run/Threads.h"
#include "foundation/run/Unhandled.h"

#include <cerrno>
#include <system_error>

namespace sentrova {

void DailyTimers::start(const std::string& name, const std::shared_ptr<Timer>& timer) {
    // The entry is allocated before the thread starts. If memory is short, no thread is left without an owner.
    std::list<Running> started;
    auto& thread = started.emplace_back(Running{timer, {}}).thread;
    thread = tryStartThread([name, timer] { runGuarded(name, [&timer] { timer->run(); }); });
    if (!thread.joinable()) {
        throw std::system_error(EAGAIN, std::generic_category());
    }
    MutexLock lock(mutex_);
    if (closed_) {
        lock.unlock();
        timer->invalidate();
        thread.join();
        return;
    }
    running_.splice(running_.end(), started);
}

void DailyTimers::close() {
    std::list<Running> ended;
    {
        MutexLock lock(mutex_);
        closed_ = true;
        ended.swap(running_);
    }
    for (const auto& each : ended) {
        each.timer->invalidate();
    }
    for (auto& each : ended) {
        each.thread.join();
    }
}

}  // namespace sentrova
