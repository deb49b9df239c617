// The agent: every part that a process has once. Parts are constructed in the order of the members and destroyed in the
// reverse order.
//
// To see what an agent consists of, read the members below from top to bottom. Each part receives the parts that it
// needs, which are above it, through its constructor. Classes whose functions are static (EventQueueGCD, DomainUtil,
// ...) find their part through Current<T>, so the work of a part may reach any other: endThreads ends all work before
// any part is destroyed.

#pragma once

#include "collection/Collections.h"
#include "collection/ConsoleWatch.h"
#include "collection/DurableCollection.h"
#include "collection/Identities.h"
#include "collection/LastRead.h"
#include "collection/LoginHistory.h"
#include "core/ConfigurationCheck.h"
#include "core/GlobalVariables.h"
#include "core/LogFiles.h"
#include "core/Logger.h"
#include "core/PropertyListHandler.h"
#include "core/Statistics.h"
#include "forwarding/DurableSpool.h"
#include "forwarding/RetryRequests.h"
#include "forwarding/Spool.h"
#include "forwarding/Transport.h"
#include "foundation/run/BackgroundActivity.h"
#include "foundation/run/Current.h"
#include "foundation/run/NotificationCenter.h"
#include "foundation/run/Unhandled.h"
#include "foundation/time/DateFormat.h"
#include "operations/MainQueue.h"
#include "operations/ScheduleHandler.h"
#include "operations/TaskList.h"
#include "operations/TaskRegistry.h"
#include "platform/Host.h"
#include "platform/WakeSource.h"
#include "service/AgentLock.h"
#include "service/StatusFile.h"
#include "sync/SyncRounds.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string_view>

namespace sentrova {

// At most one per process at a time. The constructor runs no program, writes no file and starts no thread.
class Agent {
  public:
    // Everything in `host` must outlive the agent.
    explicit Agent(const platform::Host& host, TaskRegistry::Classes tasks = taskClasses());
    // Ends the threads, then destroys the parts. No request may be in flight, because its completion uses them. The
    // agent's program exits without running it, because threads of the system may still run then.
    ~Agent();
    // The classes and methods that tasks of `schedules.plist` may run.
    static TaskRegistry::Classes taskClasses();

    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;

    // AgentServiceHandler.h describes these.
    bool initialize();
    void run();
    void stop();
    void syncNow();
    void writeStatus();
    void end();

    // Ends the threads of all parts before any part is destroyed, because a thread may use any part.
    void endThreads();

  private:
    // Logs each exception that no other code catches.
    class LoggedExceptions final : public UnhandledExceptions {
      public:
        void report(std::string_view where, std::string_view what) override;
    };

    void openDurableMode();
    DurableSpool::Hooks durableHooks();
    void addForwarders();
    void openParts();
    void prepareFolders();
    void serveRetries();
    void beginSync();

    // The host.
    const platform::Host host_;
    const Current<Clock>::Publication clock_;
    const Current<FileSystem>::Publication files_;
    const Current<Cryptography>::Publication cryptography_;
    const Current<Encodings>::Publication encodings_;
    const Current<platform::Directory>::Publication directory_;
    const Current<platform::AuditPipeDevice>::Publication auditPipe_;
    const Current<platform::AuditCondition>::Publication auditCondition_;

    // The log.
    Published<NotificationCenter> notifications_;
    Published<DateFormat> dates_;
    Published<PropertyListLock> propertyLists_;
    LogFiles logFiles_;
    Published<Logger> logger_;
    LoggedExceptions loggedExceptions_;
    const Current<UnhandledExceptions>::Publication unhandled_;

    // The configuration.
    std::optional<AgentLock> lock_;
    Published<ConfigurationReport> report_;
    Published<Identities> identities_;
    Published<GlobalVariables> configuration_;

    // Delivery.
    Published<Statistics> statistics_;
    Published<Transport> transport_;
    Published<Spool> spool_;
    RetryRequests retries_;

    // Collection.
    Published<LoginHistory> loginHistory_;
    Published<LastRead> lastRead_;
    Published<BatchCollection> batch_;
    Published<RealtimeCollection> realtime_;
    Published<ConsoleWatch> console_;

    // The durable mode. Absent while the mode is off and has left nothing.
    std::optional<Published<DurableSpool>> durableSpool_;
    std::optional<Published<DurableCollection>> durableCollection_;
    // Used only on the journal's queue: when the time of the last event was last stored.
    Clock::Monotonic timeStored_;

    // What runs.
    BackgroundQueue background_;
    TaskList tasks_;
    TaskRegistry registry_;
    std::shared_ptr<ScheduleHandler> schedule_;
    const Current<ScheduleHandler>::Publication scheduleHandler_;
    Published<MainQueue> mainQueue_;
    // Configuration syncs, and whether the first one has been applied.
    Published<SyncRounds> syncs_;
    std::atomic<bool> isSynced_ = false;
    StatusFile status_;
    // Notifies the timers and the log when the machine has woken from sleep.
    std::unique_ptr<platform::WakeSource> wakes_;

    const Current<Agent>::Publication self_;
};

}  // namespace sentrova
