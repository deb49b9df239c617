// An installed agent, restarted for each input.

#pragma once

#include "fuzz/GuardedFileSystem.h"
#include "support/AgentFixture.h"

namespace sentrova::testing {

// One object per process, created by the first input.
class FuzzAgent : public AgentFixture {
  public:
    // Releases everything that the previous input left, including threads and timers.
    static FuzzAgent& fresh();
    // Ends the agent before its files are deleted.
    ~FuzzAgent() { restart(); }
    FuzzAgent(const FuzzAgent&) = delete;
    FuzzAgent& operator=(const FuzzAgent&) = delete;

    GuardedFileSystem& files() { return files_; }
    // A path in the agent's folder, for example of "conf/schedules.plist".
    std::string path(std::string_view name) { return (volume().agent() / name).string(); }

    // The content of a configuration file. It must be a dictionary: an exception is a finding.
    Dictionary configuration(std::string_view name) { return volume().readConfiguration(name); }

    // The number of occurrences of the text in the log.
    std::size_t logged(std::string_view text) { return static_cast<std::size_t>(AgentFixture::logged(text)); }

  private:
    FuzzAgent();
    void prepare();

    GuardedFileSystem files_;
};

}  // namespace sentrova::testing
