// An agent's surroundings for one test: a system volume, an installation as the working directory, a clock that stands
// still, and process-wide state as fresh as after a start.

#pragma once

#include "foundation/Value.h"
#include "support/FakeUrlSession.h"
#include "support/ManualClock.h"
#include "support/SystemVolume.h"

namespace sentrova::testing {

// For one at a time in a process: it changes the working directory, the zone (UTC) and the environment, and puts them
// back. The installation has a configuration that collects every known event and logs at level 2; requests go to a
// session that answers nothing until it is told to.
class AgentFixture {
  public:
    AgentFixture();
    ~AgentFixture();
    AgentFixture(const AgentFixture&) = delete;
    AgentFixture& operator=(const AgentFixture&) = delete;

    SystemVolume& volume() { return volume_; }
    ManualClock& clock() { return clock_; }
    FakeUrlSession& session() { return *session_; }

    // The configuration that is written before the agent's first look at it; change it before that, or call restart.
    Dictionary serverInfo;
    Dictionary myConfigurations;
    Dictionary schedules;
    void writeConfiguration();

    // Lets go of all process-wide state, as the end of the process and a new start would.
    void restart();

    // All lines of a category's log of the present day.
    std::string log(std::string_view category = "Config") const;
    // How many times the text occurs in it.
    int logged(std::string_view text, std::string_view category = "Config") const;

    // Waits until the condition holds, which other threads bring about; false when it does not within a minute.
    [[nodiscard]] static bool eventually(const std::function<bool()>& condition);

  private:
    void installSession();

    SystemVolume volume_;
    ManualClock clock_;
    std::shared_ptr<FakeUrlSession> session_ = std::make_shared<FakeUrlSession>();
    std::string formerFolder_;
};

}  // namespace sentrova::testing
