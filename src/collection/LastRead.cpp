#include "collection/LastRead.h"

#include "collection/currentLoginUtility.h"
#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "core/PropertyListHandler.h"
#include "forwarding/EventQueueGCD.h"
#include "foundation/run/Unhandled.h"

#include <algorithm>
#include <limits>

#include <fmt/format.h>

namespace sentrova {

namespace {
constexpr LogSource kLog("EventCollector");
}  // namespace

void LastRead::begin() {
    std::call_once(begun_, [this] {
        time_ =
            static_cast<std::uint64_t>(std::max<std::int64_t>(configuration_.timeStampOfLastEvent().integerValue(), 0));
        observer_ = notifications_.addObserver(EventQueueGCD::kTimeUpdateNotification,
                                               [this](const Notification&) { store(); });
    });
}

bool LastRead::admit(std::uint64_t time, bool mayMove) {
    auto last = time_.load(std::memory_order_relaxed);
    while (last < time && mayMove) {
        if (time_.compare_exchange_weak(last, time, std::memory_order_relaxed)) {
            return true;
        }
    }
    return last == time;
}

void LastRead::moveOnBySecond() {
    auto last = time();
    while (last != std::numeric_limits<std::uint64_t>::max() &&
           !time_.compare_exchange_weak(last, last + 1, std::memory_order_relaxed)) {
    }
}

void LastRead::store() noexcept {
    runGuarded("updateTime", [this] { storeIfNewer(); });
}

void LastRead::storeIfNewer() {
    const auto newest = static_cast<std::int64_t>(time());
    // The history goes first: records before the stored time are not read again, so their additions to the history must
    // be on disk.
    currentLoginUtility::flush();
    const auto path = fmt::format("{}/{}", configuration_.confPath(), GlobalConstants::MY_CONFIGURATIONS_FILE);
    const MutexLock lock(mutex_);
    if (newest <= storedLocked(path)) {
        kLog.debug("Timestamps are less than or same");
        return;
    }
    PropertyListHandler::change(path, GlobalConstants::TIMESTAMP_LE, fmt::format("{}", newest));
    configuration_.initialiseMyConfigurations();
}

std::int64_t LastRead::storedLocked(const std::string& path) {
    const auto status = files_.status(path);
    if (!status || !readFrom_ || readFrom_->identity != status->identity || readFrom_->size != status->size ||
        readFrom_->modificationDate != status->modificationDate) {
        stored_ = PropertyListHandler::initWithFile(path).GetValueForKey(GlobalConstants::TIMESTAMP_LE).integerValue();
        readFrom_ = status ? std::optional(*status) : std::nullopt;
    }
    return stored_;
}

}  // namespace sentrova
