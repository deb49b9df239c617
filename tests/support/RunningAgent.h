// Runs the agent's program as the service manager does.

#pragma once

#include "volume/SystemVolume.h"

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>

namespace sentrova::testing {

// Why no agent can be started on this machine, in words for people. Absent if one can. A user other than root needs
// user namespaces.
std::optional<std::string> whyNoAgentRuns();

// Runs as root, in the installation's bin/. A user other than root becomes root of a new user namespace.
class RunningAgent {
  public:
    RunningAgent(const std::filesystem::path& program, const SystemVolume& volume);
    // Kills the agent if it still runs.
    ~RunningAgent();
    RunningAgent(const RunningAgent&) = delete;
    RunningAgent& operator=(const RunningAgent&) = delete;

    void signal(int number) const;
    // The exit status, or 128 plus the number of the signal that ended the agent. Absent if the agent has not ended
    // within the time.
    std::optional<int> wait(std::chrono::milliseconds time = std::chrono::minutes(1));
    // Sends SIGTERM, then waits.
    std::optional<int> stop(std::chrono::milliseconds time = std::chrono::minutes(1));

    pid_t process() const { return process_; }

  private:
    pid_t process_ = -1;
    std::optional<int> status_;
};

// The content of `Serverinfo.plist` for a server on loopback. The port is that of the agent connector, the product
// connector and the relay. The three host names are different texts for loopback.
Dictionary loopbackConfiguration(int port);

// Polls until the condition holds. For effects of other processes. Returns false after the time.
[[nodiscard]] bool waitUntil(const std::function<bool()>& condition,
                             std::chrono::milliseconds time = std::chrono::minutes(1));

// The text of all log files of a category in the installation.
std::string logOf(const SystemVolume& volume, std::string_view category);
// Waits until the text is in the category's log. Returns false after the time.
[[nodiscard]] bool waitForLog(const SystemVolume& volume, std::string_view category, std::string_view text,
                              std::chrono::seconds time = std::chrono::seconds(60));

}  // namespace sentrova::testing
