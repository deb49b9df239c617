// An installed agent on files in memory, as fresh for each input as after a start.

#pragma once

#include "fuzz/MemoryFileSystem.h"
#include "support/AgentFixture.h"

namespace sentrova::testing {

// There is one in a process, made by the first input.
class FuzzAgent : public AgentFixture {
  public:
    // Lets go of everything that the input before it left, threads and timers among it.
    static FuzzAgent& fresh();

    MemoryFileSystem& files() { return files_; }
    // A path in the agent's folder: "conf/schedules.plist".
    std::string path(std::string_view name) { return (volume().agent() / name).string(); }

    // What a configuration file holds. That it is a dictionary is an invariant.
    Dictionary configuration(std::string_view name);

    // How often the text occurs in a category's log.
    std::size_t logged(std::string_view text, std::string_view category = "Config");

  private:
    FuzzAgent();
    void prepare();

    MemoryFileSystem files_;
};

}  // namespace sentrova::testing
