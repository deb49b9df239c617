#include "sync/SyncRounds.h"

#include <utility>

namespace sentrova {

SyncRounds::Turn::Turn(SyncRounds& rounds) : rounds_(rounds) {
    MutexLock lock(rounds_.mutex_);
    const auto turn = rounds_.turns_;
    if (!rounds_.state_.underWaySince) {
        rounds_.state_.underWaySince = rounds_.clock_.epochSeconds();
        isHeld_ = true;
        return;
    }
    while (rounds_.turns_ == turn) {
        rounds_.changed_.wait(lock);
    }
}

SyncRounds::Turn::~Turn() {
    if (isHeld_) {
        const MutexLock lock(rounds_.mutex_);
        rounds_.state_.underWaySince.reset();
        ++rounds_.turns_;
        rounds_.changed_.notifyAll();
    }
}

void SyncRounds::Pause::end() {
    const MutexLock lock(mutex);
    isOver = true;
    changed.notifyAll();
}

void SyncRounds::Pause::wait() {
    MutexLock lock(mutex);
    while (!isOver) {
        changed.wait(lock);
    }
}

void SyncRounds::pause(Clock::Duration duration) {
    const auto pause = std::make_shared<Pause>();
    {
        const MutexLock lock(mutex_);
        // A request that came during the round's last requests gets a round that begins after it.
        if (state_.asked > state_.served) {
            return;
        }
        pause_ = pause;
    }
    const auto timer = clock_.after(duration, [pause] { pause->end(); });
    pause->wait();
    clock_.cancel(timer);
    const MutexLock lock(mutex_);
    pause_.reset();
}

void SyncRounds::end(Outcome outcome, std::string text) {
    const MutexLock lock(mutex_);
    state_.last = Round{.outcome = outcome, .text = std::move(text), .time = clock_.epochSeconds()};
    state_.served = state_.asked;
    isApplying_ = false;
}

void SyncRounds::beginApplying() {
    const MutexLock lock(mutex_);
    isApplying_ = true;
}

bool SyncRounds::isAwaited() {
    const MutexLock lock(mutex_);
    return state_.asked > state_.served && !state_.underWaySince && !isApplying_;
}

bool SyncRounds::ask() {
    std::shared_ptr<Pause> pause;
    bool isUnderWay = false;
    {
        const MutexLock lock(mutex_);
        ++state_.asked;
        pause = pause_;
        isUnderWay = state_.underWaySince.has_value() || isApplying_;
    }
    if (pause) {
        pause->end();
    }
    return !isUnderWay;
}

SyncRounds::State SyncRounds::state() {
    const MutexLock lock(mutex_);
    return state_;
}

}  // namespace sentrova
