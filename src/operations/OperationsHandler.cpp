#include "operations/OperationsHandler.h"

#include "core/LogSource.h"
#include "foundation/run/Unhandled.h"

#include <algorithm>

namespace sentrova {

namespace {
constexpr LogSource kLog("OperationsHandler");
}  // namespace

OperationsHandler::OperationsHandler(int maximum, Clock& clock) : queue_(clock) {
    if (maximum >= 1) {
        queue_.setMaxConcurrentOperationCount(maximum);
    }
}

void OperationsHandler::addToOperationQueue(const std::shared_ptr<ConcurrentOperationAbstract>& operation) {
    const auto name = operation->name();
    const auto operations = queue_.operations();
    const bool runs = std::ranges::any_of(
        operations, [&name](const auto& other) { return other->name() == name && other->isExecuting(); });
    if (runs) {
        kLog.info("OperationsHandler {} cannot be added to the queue already exists", name);
        return;
    }
    queue_.addOperation(operation);
    kLog.info("OperationsHandler {} has been added to the queue", name);
}

void OperationsHandler::addDependency(const std::shared_ptr<ConcurrentOperationAbstract>& operation,
                                      const std::shared_ptr<ConcurrentOperationAbstract>& toOperation) {
    operation->addDependency(toOperation);
}

void OperationsHandler::addBlockToQueue(std::function<void()> block) {
    queue_.addOperationWithBlock(std::move(block));
}

void OperationsHandler::suspend() {
    for (const auto& operation : queue_.operations()) {
        // An operation whose cancel throws must not keep the others from being cancelled.
        runGuarded(operation->name(), [&operation] { operation->cancel(); });
    }
}

void OperationsHandler::close() {
    suspend();
    queue_.close();
}

void OperationsHandler::waitToFinish() {
    queue_.waitUntilAllOperationsAreFinished();
}

void OperationsHandler::countOfOperationsInQueue() const {
    kLog.debug("operations count {}", queue_.operationCount());
}

void OperationsHandler::cancelOperationWithName(std::string_view name) {
    const auto operations = queue_.operations();
    if (LogSource::isWritten(LogLevel::Info)) {
        Array list;
        std::ranges::transform(operations, std::back_inserter(list), &Operation::description);
        kLog.info("operations count {}", Value(list));
    }
    for (const auto& operation : operations) {
        if (operation->name() == name) {
            operation->cancel();
            kLog.info("OperationsHandler {} has been cancelled", name);
        }
    }
}

bool OperationsHandler::getTaskStatus(std::string_view name) const {
    const auto operations = queue_.operations();
    const auto found = std::ranges::find_if(operations, [name](const auto& other) { return other->name() == name; });
    if (found == operations.end()) {
        kLog.error("{} operation doesnot exists", name);
        return false;
    }
    return (*found)->isExecuting();
}

}  // namespace sentrova
