// An installed agent, as fresh for each input as after a start.

#pragma once

#include "fuzz/GuardedFileSystem.h"
#include "support/AgentFixture.h"

namespace sentrova::testing {

// There is one in a process, made by the first input.
class FuzzAgent : public AgentFixture {
  public:
    // Lets go of everything that the input before it left, threads and timers among it.
    static FuzzAgent& fresh();
    // While the files are still there.
    ~FuzzAgent() { restart(); }
    FuzzAgent(const FuzzAgent&) = delete;
    FuzzAgent& operator=(const FuzzAgent&) = delete;

    GuardedFileSystem& files() { return files_; }
    // A path in the agent's folder: "conf/schedules.plist".
    std::string path(std::string_view name) { return (volume().agent() / name).string(); }

    // What a configuration file holds. That it is a dictionary is an invariant: an exception is a finding as well.
    Dictionary configuration(std::string_view name) { return volume().readConfiguration(name); }

    // How often the text occurs in the log.
    std::size_t logged(std::string_view text) { return static_cast<std::size_t>(AgentFixture::logged(text)); }

  private:
    FuzzAgent();
    void prepare();

    GuardedFileSystem files_;
};

}  // namespace sentrova::testing
