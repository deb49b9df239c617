#include "collection/CollectionRefusal.h"

#include "core/GlobalVariables.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/Current.h"

#include <cerrno>
#include <utility>

namespace sentrova {

namespace {
constexpr LogSource kLog("CollectionRefusal");
}  // namespace

std::optional<std::string> CollectionRefusal::reason() {
    const auto& configuration = GlobalVariables::getInstance();
    if (!configuration.isEnabled()) {
        return "the agent is disabled (isEnabled)";
    }
    if (configuration.maxEventDataSizeReached()) {
        return "the spool has reached its size limit (MaxEventDataSize)";
    }
    const auto spool = Current<FileSystem>::get().checkOwnFolder(configuration.eventDataPath());
    // Other errors, such as a shortage of descriptors, are temporary. They must not keep realtime collection from its
    // only start.
    if (spool) {
        return std::nullopt;
    }
    const auto& [domain, code, description] = spool.error();
    if (code == ELOOP || code == ENOENT || code == ENOTDIR) {
        return description;
    }
    kLog.error("{}; events are still collected", description);
    return std::nullopt;
}

void CollectionRefusal::note(const LogSource& log, std::string_view what, const std::optional<std::string>& reason) {
    {
        MutexLock lock(mutex_);
        if (std::exchange(told_, reason) == reason) {
            return;
        }
    }
    if (reason) {
        log.error("{} does not run: {}", what, *reason);
    }
}

}  // namespace sentrova
