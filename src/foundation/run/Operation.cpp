#include "foundation/run/Operation.h"

#include "foundation/run/Unhandled.h"

#include <fmt/format.h>

namespace sentrova {

bool Operation::run() noexcept {
    bool ran = false;
    runGuarded("operation", [this, &ran] {
        ran = runGuarded(name(), [this] { start(); });
        if (!ran) {
            finishFailed();
        }
    });
    return ran;
}

std::string Operation::name() const {
    MutexLock lock(mutex_);
    return name_;
}

void Operation::setName(std::string name) {
    MutexLock lock(mutex_);
    name_ = std::move(name);
}

void Operation::addDependency(std::shared_ptr<Operation> other) {
    MutexLock lock(mutex_);
    dependencies_.push_back(std::move(other));
}

std::vector<std::shared_ptr<Operation>> Operation::dependencies() const {
    MutexLock lock(mutex_);
    return dependencies_;
}

std::string Operation::description() const {
    return fmt::format("<{}: isFinished={:d} isCancelled={:d} isExecuting={:d}>", name(), isFinished(), isCancelled(),
                       isExecuting());
}

Value Operation::valueForKey(std::string_view key) const {
    if (key == kIsFinished) {
        return isFinished();
    }
    if (key == kIsExecuting) {
        return isExecuting();
    }
    if (key == kIsCancelled) {
        return isCancelled();
    }
    return {};
}

}  // namespace sentrova
