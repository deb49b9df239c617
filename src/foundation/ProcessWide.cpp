#include "foundation/ProcessWide.h"

#include <vector>

namespace sentrova {

namespace {

struct Made {
    Mutex mutex;
    std::vector<ProcessWideState*> states GUARDED_BY(mutex);
};

Made& made() {
    static auto* const list = new Made;  // NOLINT(cppcoreguidelines-owning-memory)
    return *list;
}

}  // namespace

void ProcessWideState::noteMade() {
    MutexLock lock(made().mutex);
    made().states.push_back(this);
}

void ProcessWideState::endThreads() {
    std::vector<ProcessWideState*> states;
    {
        MutexLock lock(made().mutex);
        states = made().states;
    }
    for (auto* state : states) {
        state->quiesce();
    }
}

void ProcessWideState::reset() {
    endThreads();
    for (;;) {
        ProcessWideState* youngest = nullptr;
        {
            MutexLock lock(made().mutex);
            if (made().states.empty()) {
                return;
            }
            youngest = made().states.back();
            made().states.pop_back();
        }
        youngest->drop();
    }
}

}  // namespace sentrova
