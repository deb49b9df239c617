// The agent's program, run as the service manager runs it.

#pragma once

#include "volume/SystemVolume.h"

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

namespace sentrova::testing {

// Why no agent can be started here, in words for a person; nothing when one can. An ordinary user needs a user
// namespace.
std::optional<std::string> whyNoAgentRuns();

// As root, with the installation's bin/ as its working directory; an ordinary user becomes root of a namespace of its
// own.
class RunningAgent {
  public:
    RunningAgent(const std::filesystem::path& program, const SystemVolume& volume);
    // Kills what still runs.
    ~RunningAgent();
    RunningAgent(const RunningAgent&) = delete;
    RunningAgent& operator=(const RunningAgent&) = delete;

    void signal(int number) const;
    // The exit status; 128 and the number for a signal's end. Nothing when it has not ended within the time.
    std::optional<int> wait(std::chrono::milliseconds time = std::chrono::minutes(1));
    // SIGTERM, and wait.
    std::optional<int> stop(std::chrono::milliseconds time = std::chrono::minutes(1));

    pid_t process() const { return process_; }

  private:
    pid_t process_ = -1;
    std::optional<int> status_;
};

// What `Serverinfo.plist` holds for a server on loopback that has the port for its agent and product connectors and as
// a relay; its three names differ as texts.
Dictionary loopbackConfiguration(int port);

// Looks at the condition until it holds, which other processes bring about; false when it does not within the time.
[[nodiscard]] bool waitUntil(const std::function<bool()>& condition,
                             std::chrono::milliseconds time = std::chrono::minutes(1));

// The text of all files of a category in the installation's logs folder.
std::string logOf(const SystemVolume& volume, std::string_view category);
// False when the text is not in the category's log within the time.
[[nodiscard]] bool waitForLog(const SystemVolume& volume, std::string_view category, std::string_view text,
                              std::chrono::seconds time = std::chrono::seconds(60));

}  // namespace sentrova::testing
