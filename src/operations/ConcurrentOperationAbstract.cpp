#include "operations/ConcurrentOperationAbstract.h"

#include "core/LogSource.h"

namespace sentrova {

namespace {
constexpr LogSource kLog("ConcurrentOperationAbstract");
}  // namespace

ConcurrentOperationAbstract::ConcurrentOperationAbstract(std::string className) {
    setName(std::move(className));
}

bool ConcurrentOperationAbstract::canStart() {
    kLog.debug("ConcurrentOperationAbstract canStart called {:d} {:d}", isCancelled(), isFinished());
    if (!isCancelled()) {
        return true;
    }
    finishRefused();
    return false;
}

void ConcurrentOperationAbstract::finishRefused() {
    willChangeValueForKey(kIsFinished);
    finished_ = true;
    didChangeValueForKey(kIsFinished);
}

void ConcurrentOperationAbstract::started() {
    willChangeValueForKey(kIsExecuting);
    executing_ = true;
    didChangeValueForKey(kIsExecuting);
}

void ConcurrentOperationAbstract::completeOperation() {
    willChangeValueForKey(kIsFinished);
    willChangeValueForKey(kIsExecuting);
    executing_ = false;
    finished_ = true;
    didChangeValueForKey(kIsExecuting);
    didChangeValueForKey(kIsFinished);
}

void ConcurrentOperationAbstract::finishFailed() {
    // A second run may have failed after the first one was finished.
    if (isExecuting() || !isFinished()) {
        completeOperation();
    }
}

void ConcurrentOperationAbstract::cancelOperation() {
    willChangeValueForKey(kIsCancelled);
    cancelled_ = true;
    didChangeValueForKey(kIsCancelled);
}

void ConcurrentOperationAbstract::printStatus() const {
    kLog.info("isFinished={:d}", isFinished());
    kLog.info("isCancelled={:d}", isCancelled());
    kLog.info("isExecuting={:d}", isExecuting());
    kLog.info("isAsync={:d}", isAsynchronous());
    kLog.info("isCancelled={:d}", isCancelled());
}

}  // namespace sentrova
