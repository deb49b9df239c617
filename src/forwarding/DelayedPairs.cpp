#include "forwarding/DelayedPairs.h"

namespace sentrova {

void DelayedPairs::add(Clock::Monotonic due) {
    if (!runs_.empty() && due - runs_.back().begin < kRunLength) {
        runs_.back().due = std::max(runs_.back().due, due);
        ++runs_.back().count;
    } else {
        runs_.push_back({due, due, 1});
    }
}

bool DelayedPairs::take(Clock::Monotonic now) {
    if (runs_.empty() || runs_.front().due > now) {
        return false;
    }
    if (--runs_.front().count == 0) {
        runs_.pop_front();
    }
    return true;
}

}  // namespace sentrova
