#include "core/AgentServiceHandler.h"

#include "collection/AuditCheck.h"
#include "collection/EventCollectionSchedule.h"
#include "collection/EventCollectorRealtime.h"
#include "collection/EventSelection.h"
#include "collection/currentLoginUtility.h"
#include "core/AgentLock.h"
#include "core/ConfigurationCheck.h"
#include "core/GlobalConstants.h"
#include "core/GlobalVariables.h"
#include "core/LogSource.h"
#include "core/Logger.h"
#include "core/Utilities.h"
#include "forwarding/EventForwarder.h"
#include "forwarding/EventQueueGCD.h"
#include "foundation/FileSystem.h"
#include "foundation/Mutex.h"
#include "foundation/NotificationCenter.h"
#include "foundation/ProcessWide.h"
#include "operations/OperationsHandler.h"
#include "operations/ScheduleHandler.h"
#include "platform/WakeSource.h"
#include "sync/ServerCommunicator.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <optional>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("AgentServiceHandler");

constexpr std::string_view kBanner =
    "**************************************************************************************";
static_assert(kBanner.size() == 86);

// The main queue, and whether the service is to stop. Safe from any thread.
class Service {
  public:
    std::shared_ptr<OperationsHandler> mainQueue() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return queue_;
    }

    std::shared_ptr<OperationsHandler> renewMainQueue() EXCLUDES(mutex_) {
        auto queue = std::make_shared<OperationsHandler>(-1);
        MutexLock lock(mutex_);
        // The earlier one goes after the lock, with the copy that is returned.
        std::swap(queue_, queue);
        auto renewed = queue_;
        lock.unlock();
        return renewed;
    }

    // After a stop nothing is added. The second look is for a stop that came in between and may have cancelled the
    // queue's operations just before this one was among them.
    void add(const std::shared_ptr<ConcurrentOperationAbstract>& operation) {
        const auto queue = mainQueue();
        if (!queue || stopAsked_) {
            return;
        }
        queue->addToOperationQueue(operation);
        if (stopAsked_) {
            queue->suspend();
        }
    }

    // For the life of the process: whatever is added later does not run.
    void stop() {
        stopAsked_ = true;
        if (const auto queue = mainQueue()) {
            queue->suspend();
        }
    }
    bool stopAsked() const { return stopAsked_; }

    // On the main thread, once.
    void lockInstallation() { lock_.emplace(); }

    // Ends the operations and their threads.
    void quiesce() EXCLUDES(mutex_) {
        std::shared_ptr<OperationsHandler> queue;
        {
            MutexLock lock(mutex_);
            queue = std::move(queue_);
        }
        // Not left to the destructor: an operation may hold the queue for a moment longer.
        if (queue) {
            queue->close();
        }
    }

  private:
    std::optional<AgentLock> lock_;
    std::atomic<bool> stopAsked_ = false;
    Mutex mutex_;
    std::shared_ptr<OperationsHandler> queue_ GUARDED_BY(mutex_);
};

// Tells the parts that wait for a date, and the log, when the machine has slept.
struct Wakes {
    std::unique_ptr<platform::WakeSource> source = platform::WakeSource::make(
        [] { NotificationCenter::defaultCenter().post({Logger::kDidWakeNotification, nullptr, {}}); });
};

ProcessWide<Service> theService;
ProcessWide<ConfigurationReport> theReport;
ProcessWide<Wakes> theWakes;

// Says which of the agent's folders are not what the agent takes them for.
void checkFolder(const std::string& folder) {
    auto& fileSystem = FileSystem::shared();
    if (const auto links = fileSystem.checkLinks(folder); !links) {
        const auto problem = fmt::format("The folder {} is not used, and nothing in it is read or written: {}", folder,
                                         links.error().description);
        kLog.error(__func__, "{}", problem);
        // The log may be what is behind the link.
        fmt::print(stderr, "{}\n", problem);
        return;
    }
    const auto status = fileSystem.status(folder);
    if (!status) {
        if (status.error().code != ENOENT) {
            kLog.error(__func__, "{}", status.error().description);
        }
    } else if (status->owner != ::geteuid() || (status->permissions & (S_IWGRP | S_IWOTH)) != 0) {
        kLog.error(__func__, "The folder {} can be changed by others than its owner, and so can what the agent does",
                   folder);
    }
}

void makeMissingFolder(const std::string& folder) {
    const auto made = FileSystem::shared().createFolder(folder);
    if (made) {
        kLog.info(__func__, "The folder {} was missing and has been made", folder);
    } else if (made.error().code != EEXIST) {
        kLog.error(__func__, "{}", made.error().description);
    }
}

// A process that was killed while it wrote a file has left the unfinished one behind.
void removeUnfinishedFiles(const std::string& folder) {
    const auto names = FileSystem::shared().ownNames(folder);
    if (!names) {
        // A link that is not followed has been named before.
        if (names.error().code != ENOENT && names.error().code != ELOOP) {
            kLog.error(__func__, "{}", names.error().description);
        }
        return;
    }
    for (const auto& name : *names) {
        if (FileSystem::isTemporaryName(name)) {
            kLog.info(__func__, "Removing the unfinished file {}/{}", folder, name);
            static_cast<void>(FileSystem::shared().remove(folder + "/" + name));
        }
    }
}

template <class Made>
std::shared_ptr<Made> named(std::shared_ptr<Made> operation, const char* name) {
    operation->setName(name);
    return operation;
}

}  // namespace

bool AgentServiceHandler::initializeService() {
    if (!Utilities::isSupportedOSVersion() || ::getuid() != 0) {
        kLog.error(__func__, "Agent cannot run because its either an unsupported version or the User is not a root");
        // The keys, not numbers: the line has always read so.
        kLog.error(__func__, "Supported Version = {}.{}", GlobalConstants::MAJOR_VERSION,
                   GlobalConstants::MINOR_VERSION);
        return false;
    }
    // Before anything of the installation is touched.
    theService.get().lockInstallation();
    // Before the configuration is loaded, which writes a file that is missing.
    checkConfiguration();
    const auto& configuration = GlobalVariables::getInstance();
    const auto archive = configuration.logsPath() + "/archive";
    makeMissingFolder(configuration.logsPath());
    makeMissingFolder(archive);
    checkFolder(configuration.binPath());
    for (const auto& folder :
         {configuration.confPath(), configuration.logsPath(), archive, configuration.eventDataPath()}) {
        checkFolder(folder);
        removeUnfinishedFiles(folder);
    }
    // Before the sync, which may take for ever: whoever installs the agent looks at the log before that.
    AuditCheck::logState();
    ServerCommunicator().syncAndApply();
    EventQueueGCD::init();
    currentLoginUtility::init();
    kLog.debug(__func__, "AgentServiceHandler init Finished");
    return true;
}

void AgentServiceHandler::checkConfiguration() {
    theReport.get().report(sentrova::checkConfiguration(ConfigurationFiles::in(std::string(GlobalConstants::CONF_PATH)),
                                                        EventSelection::knownNames()));
}

void AgentServiceHandler::start() {
    kLog.info(__func__, "{}", kBanner);
    kLog.info(__func__, "Going to Start Vantorix Sentrova Agent.");
    kLog.info(__func__, "{}", kBanner);
    auto& service = theService.get();
    const auto mainQueue = service.renewMainQueue();
    if (service.stopAsked()) {
        kLog.info(__func__, "The agent was stopped before its start; nothing is started");
        return;
    }
    if (!theWakes.get().source) {
        kLog.error(__func__, "This system does not tell when it wakes; old logs are archived at the next start only");
    }

    Logger().validateLogSize();
    Logger().rotateLog();

    service.add(named(ScheduleHandler::init(), "ScheduleHandler"));
    service.add(named(EventForwarder::init(), "EventForwarder"));
    kLog.debug(__func__, "Calling first schedule");
    const auto batch = named(std::make_shared<EventCollectionSchedule>(), EventCollectionSchedule::kOperationName);
    service.add(batch);
    // What the files hold comes before what the live device brings.
    const auto realtime = named(std::make_shared<EventCollectorRealtime>(), EventCollectorRealtime::kOperationName);
    mainQueue->addDependency(realtime, batch);
    service.add(realtime);
    mainQueue->waitToFinish();
}

void AgentServiceHandler::stop() {
    kLog.info(__func__, "AgentServiceHandler stop called");
    theService.get().stop();
}

void AgentServiceHandler::end() {
    if (const auto events = EventQueueGCD::lengthAtEnd(); events > 0) {
        kLog.error(__func__, "{} events in memory were not delivered and are given up by this stop", events);
    }
    // An addition of the last moment may still wait for its write.
    currentLoginUtility::flush();
}

void AgentServiceHandler::addOperationToMainQueue(const std::shared_ptr<ConcurrentOperationAbstract>& operation) {
    theService.get().add(operation);
}

void AgentServiceHandler::cancelOperationsOnMainQueue(std::string_view name) {
    if (const auto mainQueue = theService.get().mainQueue()) {
        mainQueue->cancelOperationWithName(name);
    }
}

bool AgentServiceHandler::getOperationStatusOnMainQueue(std::string_view name) {
    const auto mainQueue = theService.get().mainQueue();
    return mainQueue && mainQueue->getTaskStatus(name);
}

}  // namespace sentrova
