// An agent for one test: a system volume, an installation as the working directory, a host with a clock that stands
// still, and an Agent as fresh as after a start.

#pragma once

#include "foundation/value/Value.h"
#include "service/Agent.h"
#include "support/Eventually.h"
#include "support/TestHost.h"
#include "volume/SystemVolume.h"

#include <optional>

namespace sentrova::testing {

// For one at a time in a process: it changes the working directory, the zone (UTC) and the environment, and puts them
// back. The installation has a configuration that collects every known event and logs at level 2; requests go to a
// session that answers nothing until it is told to. The agent has begun to log and knows the time of the last event;
// nothing else has begun: see Agent::initialize.
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

    // What writeConfiguration writes into the files.
    Dictionary serverInfo;
    Dictionary myConfigurations;
    Dictionary schedules;
    void writeConfiguration();

    // Destroys the agent and makes another from the files, as the end of the process and a new start would.
    void restart();
    // The same after writeConfiguration.
    void restartConfigured();
    // What the tasks of agents that are made from now on may run.
    TaskRegistry::Classes taskClasses = Agent::taskClasses();

    // All lines of a category's log of the present day.
    std::string log(std::string_view category = "Config") const;
    // How many times the text occurs in it.
    int logged(std::string_view text, std::string_view category = "Config") const;

    // Destroys the agent.
    void endAgent();

  private:
    SystemVolume volume_;
    TestHost host_;
    std::optional<Agent> agent_;
    std::string formerFolder_;
};

}  // namespace sentrova::testing
