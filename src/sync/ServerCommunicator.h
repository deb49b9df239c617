// Synchronises the agent's configuration with the audit server, and applies what the server changed.

#pragma once

#include "core/PropertyListHandler.h"
#include "foundation/value/Value.h"

namespace sentrova {

class ServerCommunicator {
  public:
    // The scheduled task that runs the synchronisation.
    static constexpr const char* kTaskName = "SyncConfiguration";

    // Sends the agent's state to the server and returns when the server has answered with 200, however long that takes:
    // each failure moves on to the next address, and after twelve in a row the thread sleeps for 900 seconds. What the
    // answer changes may still be applied, on the transport's delegate queue, when this returns.
    void syncFromServer();
    // The same for the start of the agent, returning only when the answer has been applied: collection is to begin with
    // the configuration that it brought. Not while there is a main queue, since a handler may wait for an operation
    // there.
    void syncAndApply();

    // The change handlers, called in this order after a synchronisation. Each compares what `Serverinfo.plist` held, as
    // it was sent, with the server's answer. An absent new value is no change, unless a handler says otherwise.

    // "AgentGuid" and "DomainID": the agent's first configuration is logged; an agent whose domain is gone was removed
    // at the server, which clears its keys and stops the service.
    static void ConfigurationChangesCheckWithOldData(const PropertyListHandler& oldData, Dictionary& newData);
    // "isEnabled": starts or stops both collections.
    static void StateChangesCheckWithOldData(const PropertyListHandler& oldData, Dictionary& newData);
    // "IsRealTime" (absent is false) and "FetchInterval": switches the way of collecting, re-times batch collection.
    static void IntervalChangesCheckWithOldData(const PropertyListHandler& oldData, Dictionary& newData);
    // "NATServerName": sets the type of connection.
    static void NATChangesWithOldData(const PropertyListHandler& oldData, Dictionary& newData);
    // "SyncTime": re-times the synchronisation.
    static void SyncTimeCheckWithOldData(const PropertyListHandler& oldData, Dictionary& newData);
    // "EventsToRead": restarts realtime collection, if that was on and stays on. Blocks while the old one ends.
    static void realTimeReinitialiseCheckWithOldData(const PropertyListHandler& oldData, Dictionary& newData);
    // "AgentAuthID", when the agent had none: stores the identity, encrypted, and removes it from the new data.
    static void AuthIDChangesWithOldData(const PropertyListHandler& oldData, Dictionary& newData);

  private:
    enum class Until { answered, applied };
    static void sync(Until until);
};

}  // namespace sentrova
