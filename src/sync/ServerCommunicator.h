// Synchronises the agent's configuration with the audit server, and applies the changes.

#pragma once

#include "core/PropertyListHandler.h"
#include "foundation/value/Value.h"

namespace sentrova {

class ServerCommunicator {
  public:
    // The name of the scheduled task that runs syncFromServer.
    static constexpr const char* kTaskName = "SyncConfiguration";

    // Sends the agent's state to the server and returns when the server has answered with 200, however long that takes.
    // Each failure moves to the next address. After twelve failures in a row, the thread sleeps for 900 seconds. The
    // changes may still be applied, on the session's delegate queue, after this returns. A call while a sync is under
    // way waits for the end of that sync and sends nothing.
    void syncFromServer();
    // The same for the start of the agent, but returns only when the changes have been applied: collection must begin
    // with the new configuration. Must not be called while there is a main queue, because a handler may wait for an
    // operation on it.
    void syncAndApply();

    // The change handlers, called in this order after a synchronisation. Each compares `Serverinfo.plist` as it was
    // sent (oldData) with the server's answer (newData). An absent new value means no change, unless a handler says
    // otherwise.

    // "AgentGuid" and "DomainID": logs the agent's first configuration. If the server has removed the agent (same
    // "AgentGuid", no "DomainID"), clears the agent's keys and stops the service.
    static void ConfigurationChangesCheckWithOldData(const PropertyListHandler& oldData, Dictionary& newData);
    // "isEnabled": starts or stops both collections.
    static void StateChangesCheckWithOldData(const PropertyListHandler& oldData, Dictionary& newData);
    // "IsRealTime" (absent means false) and "FetchInterval": switches realtime collection, and sets the interval of
    // batch collection.
    static void IntervalChangesCheckWithOldData(const PropertyListHandler& oldData, Dictionary& newData);
    // "NATServerName": sets the connection type.
    static void NATChangesWithOldData(const PropertyListHandler& oldData, Dictionary& newData);
    // "SyncTime": sets the interval of the synchronisation.
    static void SyncTimeCheckWithOldData(const PropertyListHandler& oldData, Dictionary& newData);
    // "EventsToRead": restarts realtime collection if it was on and stays on. Blocks until the old operation has ended.
    static void realTimeReinitialiseCheckWithOldData(const PropertyListHandler& oldData, Dictionary& newData);
    // "AgentAuthID", if the agent had none: stores the identity encrypted, and removes it from newData.
    static void AuthIDChangesWithOldData(const PropertyListHandler& oldData, Dictionary& newData);

  private:
    enum class Until { answered, applied };
    static void sync(Until until);
};

}  // namespace sentrova
