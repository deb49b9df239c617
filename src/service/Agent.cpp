#include "service/Agent.h"

#include "collection/AuditCheck.h"
#include "collection/EventCollectionSchedule.h"
#include "collection/EventCollectorRealtime.h"
#include "collection/currentLoginUtility.h"
#include "core/FileUtils.h"
#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "core/Utilities.h"
#include "forwarding/DurableForwarder.h"
#include "forwarding/EventForwarder.h"
#include "forwarding/EventQueueGCD.h"
#include "forwarding/SecurityUtil.h"
#include "service/ConfigurationFindings.h"
#include "service/Installation.h"
#include "sync/ServerCommunicator.h"

#include <unistd.h>

#include <algorithm>
#include <string>

namespace sentrova {

namespace {

constexpr LogSource kLog("AgentServiceHandler");

// In the durable mode.
constexpr std::chrono::minutes kTimeStoredEach{5};

constexpr std::string_view kBanner =
    "**************************************************************************************";
static_assert(kBanner.size() == 86);

template <class Made>
std::shared_ptr<Made> named(std::shared_ptr<Made> operation, const char* name) {
    operation->setName(name);
    return operation;
}

}  // namespace

void Agent::LoggedExceptions::report(std::string_view where, std::string_view what) {
    constexpr LogSource kMain("main");
    kMain.error("{}: {}", where, what);
}

TaskRegistry::Classes Agent::taskClasses() {
    return {
        {"EventCollectionSchedule", {{"start", [] { std::make_shared<EventCollectionSchedule>()->run(); }}}},
        {"ServerCommunicator", {{"syncFromServer", [] { ServerCommunicator().syncFromServer(); }}}},
        {"ScheduleHandler", {{"CheckEventDatasize", [] { ScheduleHandler::init()->CheckEventDatasize(); }}}},
    };
}

Agent::Agent(const platform::Host& host, TaskRegistry::Classes tasks)
    : host_(host),
      clock_(host.clock),
      files_(host.files),
      cryptography_(host.cryptography),
      encodings_(host.encodings),
      directory_(host.directory),
      auditPipe_(host.auditPipe),
      auditCondition_(host.auditCondition),
      dates_(host.clock, host.dates),
      logFiles_(host.files, host.clock, *dates_),
      logger_(logFiles_),
      unhandled_(loggedExceptions_),
      report_(host.files, std::string(GlobalConstants::CONF_PATH), configurationRules(tasks)),
      identities_(host.directory, host.clock),
      configuration_(host.files, *identities_, decryptedIdentity),
      transport_(*configuration_, host.session, *statistics_),
      spool_(Spool::Surroundings{.configuration = *configuration_,
                                 .transport = *transport_,
                                 .files = host.files,
                                 .clock = host.clock,
                                 .dates = *dates_,
                                 .notifications = *notifications_}),
      retries_(*configuration_, host.files, *spool_),
      loginHistory_(*configuration_, host.files, host.clock),
      lastRead_(*configuration_, host.files, *notifications_),
      timeStored_(host.clock.monotonicTime()),
      background_(host.clock, *notifications_),
      tasks_(background_),
      registry_(std::move(tasks)),
      schedule_(std::make_shared<ScheduleHandler>(tasks_, registry_, *configuration_, host.clock, *dates_)),
      scheduleHandler_(*schedule_),
      mainQueue_(host.clock),
      syncs_(host.clock),
      status_({.configuration = *configuration_,
               .statistics = *statistics_,
               .tasks = tasks_,
               .syncs = *syncs_,
               .files = host.files,
               .clock = host.clock,
               .auditCondition = host.auditCondition}),
      self_(*this) {}

Agent::~Agent() {
    endThreads();
}

void Agent::endThreads() {
    wakes_.reset();
    if (durableCollection_) {
        (*durableCollection_)->end();
    }
    mainQueue_->close();
    tasks_.close();
    background_.close();
    console_->end();
    if (durableCollection_) {
        (*durableCollection_)->close();
    }
    if (durableSpool_) {
        (*durableSpool_)->close();
    }
    spool_->close();
    loginHistory_->close();
    logFiles_.close();
}

bool Agent::initialize() {
    logger_->load(*notifications_);
    if (!Utilities::isSupportedOSVersion() || ::getuid() != 0) {
        kLog.error("Agent cannot run because its either an unsupported version or the User is not a root");
        // The key names and not their numbers: this is the established text.
        kLog.error("Supported Version = {}.{}", GlobalConstants::MAJOR_VERSION, GlobalConstants::MINOR_VERSION);
        return false;
    }
    // First of all, before any file of the installation changes.
    lock_.emplace(host_.files);
    // Before the configuration is loaded, because load writes missing files.
    report_->check();
    configuration_->load();
    prepareFolders();
    status_.begin(configuration_->logsPath());
    // Before the sync, whose answer may start a collection.
    openDurableMode();
    // Before the sync, which may take forever. An administrator who installs the agent reads the log earlier.
    AuditCheck::logState();
    ServerCommunicator().syncAndApply();
    status_.enter(StatusFile::Phase::running);
    openParts();
    isSynced_ = true;
    // After the flag is set, so that a request is served here or by its signal.
    serveRetries();
    if (syncs_->isAwaited()) {
        beginSync();
    }
    kLog.debug("AgentServiceHandler init Finished");
    return true;
}

void Agent::prepareFolders() {
    const auto folders = configuration_->snapshot();
    const auto archive = folders->logsPath + "/archive";
    Installation installation(host_.files);
    installation.makeMissingFolder(folders->logsPath);
    installation.makeMissingFolder(archive);
    installation.checkFolder(folders->binPath);
    for (const auto& folder : {folders->confPath, folders->logsPath, archive, folders->eventDataPath}) {
        installation.checkFolder(folder);
        installation.removeUnfinishedFiles(folder);
    }
}

// The mode is chosen once a start. After it was switched off, what it left is read and delivered, and the mode ends.
void Agent::openDurableMode() {
    const auto settings = configuration_->snapshot();
    if (settings->durableDelivery) {
        FileUtils::createFolder(settings->eventDataPath);
    }
    const auto mode = settings->durableDelivery ? DurableSpool::Mode::on : DurableSpool::Mode::ending;
    durableSpool_.emplace(DurableSpool::Surroundings{.configuration = *configuration_,
                                                     .files = host_.files,
                                                     .clock = host_.clock,
                                                     .dates = *dates_,
                                                     .cryptography = host_.cryptography},
                          durableHooks());
    const auto stored = std::max<std::int64_t>(settings->timeStampOfLastEvent.integerValue(), 0);
    if (!(*durableSpool_)->open(mode, static_cast<std::uint64_t>(stored))) {
        durableSpool_.reset();
        return;
    }
    durableCollection_.emplace(**durableSpool_, *configuration_, host_.files, host_.clock, host_.cryptography,
                               *statistics_);
}

DurableSpool::Hooks Agent::durableHooks() {
    DurableSpool::Hooks hooks;
    hooks.beforeWrite = [this] { loginHistory_->flush(); };
    hooks.flushed = [this](std::uint64_t newest) {
        lastRead_->begin();
        lastRead_->admit(newest, true);
        // The position is exact; this time only serves a start without the mode.
        const auto now = host_.clock.monotonicTime();
        if (now - timeStored_ >= kTimeStoredEach) {
            timeStored_ = now;
            lastRead_->store();
        }
    };
    hooks.wentBack = [] {
        if (auto* const collection = Current<DurableCollection>::orNull()) {
            collection->passSoon();
        }
    };
    return hooks;
}

void Agent::openParts() {
    if (!durableSpool_ || (*durableSpool_)->mode() != DurableSpool::Mode::on) {
        EventQueueGCD::init();
    }
    currentLoginUtility::init();
}

void Agent::run() {
    kLog.info("{}", kBanner);
    kLog.info("Going to Start Vantorix Sentrova Agent.");
    kLog.info("{}", kBanner);
    const auto mainQueue = mainQueue_->open();
    if (mainQueue_->stopAsked()) {
        kLog.info("The agent was stopped before its start; nothing is started");
        return;
    }
    wakes_ = platform::WakeSource::make(host_.clock,
                                        [this] { notifications_->post({Logger::kDidWakeNotification, nullptr, {}}); });
    if (!wakes_) {
        kLog.error("This system does not report wake-ups; old logs are archived only at the next start");
    }

    logger_->validateLogSize();
    logger_->rotateLog();

    mainQueue_->add(named(ScheduleHandler::init(), "ScheduleHandler"));
    addForwarders();
    kLog.debug("Calling first schedule");
    const auto batch = named(std::make_shared<EventCollectionSchedule>(), EventCollectionSchedule::kOperationName);
    mainQueue_->add(batch);
    // Records in trail files are collected before those of the live device.
    const auto realtime = named(std::make_shared<EventCollectorRealtime>(), EventCollectorRealtime::kOperationName);
    mainQueue->addDependency(realtime, batch);
    mainQueue_->add(realtime);
    mainQueue->waitToFinish();
}

void Agent::addForwarders() {
    if (durableSpool_) {
        mainQueue_->add(named(DurableForwarder::make(**durableSpool_, *transport_, host_.clock, host_.cryptography),
                              "DurableForwarder"));
    }
    if (!durableSpool_ || (*durableSpool_)->mode() != DurableSpool::Mode::on) {
        mainQueue_->add(named(EventForwarder::init(), "EventForwarder"));
    }
}

void Agent::stop() {
    mainQueue_->stop();
}

void Agent::syncNow() {
    // The spools are open once the first sync is over; until then, requests wait in their files.
    if (isSynced_) {
        background_.operations().addOperationWithBlock([this] { serveRetries(); });
    }
    // Until the first sync is over, it serves each request.
    if (syncs_->ask() && isSynced_) {
        beginSync();
    }
}

void Agent::serveRetries() {
    if (!mainQueue_->stopAsked()) {
        retries_.serve(durableSpool_ ? &**durableSpool_ : nullptr);
    }
}

void Agent::beginSync() {
    if (!mainQueue_->stopAsked()) {
        background_.operations().addOperationWithBlock([] { ServerCommunicator().syncFromServer(); });
    }
}

void Agent::writeStatus() {
    status_.write();
}

void Agent::end() {
    if (const auto events = spool_->lengthAtEnd(); events > 0) {
        kLog.error("{} events in memory were not delivered; this stop discards them", events);
    }
    // A stop may come during the start, on another thread.
    if (auto* const collection = Current<DurableCollection>::orNull()) {
        collection->end();
    }
    if (auto* const spool = Current<DurableSpool>::orNull()) {
        spool->close();
        lastRead_->store();
    }
    // A recent addition may still wait for its write.
    loginHistory_->flush();
    status_.enter(StatusFile::Phase::ended);
    status_.write();
}

}  // namespace sentrova
