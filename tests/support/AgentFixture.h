// An agent for one test: a system volume, an installation as the working directory, a host with a stopped clock, and a
// newly started Agent.

#pragma once

#include "foundation/value/Value.h"
#include "service/Agent.h"
#include "support/Eventually.h"
#include "support/TestHost.h"
#include "volume/SystemVolume.h"

#include <optional>

namespace sentrova::testing {

// One per process at a time: it changes the working directory, the time zone (UTC) and the environment, and restores
// them. The configuration collects every known event and logs at level 2. Requests go to a FakeUrlSession, which
// answers only when the test says so. The agent logs and knows the time of the last event; nothing else is running yet:
// see Agent::initialize.
class AgentFixture {
  public:
    AgentFixture();
    ~AgentFixture();
    AgentFixture(const AgentFixture&) = delete;
    AgentFixture& operator=(const AgentFixture&) = delete;

    SystemVolume& volume() { return volume_; }
    ManualClock& clock() { return host_.clock; }
    FakeUrlSession& session() { return host_.session; }
    TestHost& host() { return host_; }
    Agent& agent() { return *agent_; }

    // The content that writeConfiguration writes to the files.
    Dictionary serverInfo;
    Dictionary myConfigurations;
    Dictionary schedules;
    void writeConfiguration();

    // Destroys the agent and creates a new one from the files, like a restart of the process.
    void restart();
    // The same after writeConfiguration.
    void restartConfigured();
    // The task classes of agents created from now on.
    TaskRegistry::Classes taskClasses = Agent::taskClasses();

    // All lines in a category's log of the current day.
    std::string log(std::string_view category = "Config") const;
    // How many times the text occurs in that log.
    int logged(std::string_view text, std::string_view category = "Config") const;

    void endAgent();

  private:
    SystemVolume volume_;
    TestHost host_;
    std::optional<Agent> agent_;
    std::string formerFolder_;
};

}  // namespace sentrova::testing
