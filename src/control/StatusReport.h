// The state of an installation and its agent, and what is wrong with it. docs/sentrovactl.md describes the JSON keys.

#pragma once

#include "control/InstallationFolder.h"
#include "foundation/files/FileSystem.h"
#include "foundation/value/Value.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sentrova::control {

class StatusReport {
  public:
    // The number of the format of `json`.
    static constexpr std::int64_t kVersion = 1;

    enum class State : std::uint8_t { healthy, unhealthy, notRunning };

    struct Problem {
        std::string problem;
        std::string remedy;
    };

    // Asks a running agent, for up to AgentQuestion::kPatience, and looks at the folders. Changes nothing. `now` is in
    // seconds since 1970. Needs what startFindingsIn needs.
    static StatusReport of(const InstallationFolder& installation, FileSystem& files, std::int64_t now);

    State state() const { return state_; }
    const std::vector<Problem>& problems() const { return problems_; }

    Dictionary json() const;

  private:
    struct Spool {
        std::int64_t files = 0;
        std::int64_t bytes = 0;
        // What all files of the folder occupy on the disk, as the agent compares it with the limit.
        std::int64_t occupied = 0;
        // The files that the agent keeps for the administrator, and does not send.
        std::int64_t kept = 0;
        // Seconds since 1970.
        std::optional<std::int64_t> oldest;
        // Bytes.
        std::int64_t limit = 0;
    };
    struct Task {
        std::string name;
        std::optional<std::int64_t> lastRun;
        std::optional<std::int64_t> nextRun;
    };

    void readFolders(const InstallationFolder& installation, FileSystem& files);
    void judge(bool hasAnswered);
    void judgeAgent();
    void judgeServer();
    void judgeSpool();
    void add(std::string problem, std::string remedy) { problems_.push_back({std::move(problem), std::move(remedy)}); }
    const Value& known(std::string_view key) const { return known_[key]; }
    const Value& known(std::string_view key, std::string_view inner) const;
    bool isRunning() const { return process_.has_value(); }

    std::int64_t now_ = 0;
    State state_ = State::notRunning;
    std::vector<Problem> problems_;
    // Of the running agent. 0 if the kernel does not tell the number.
    std::optional<std::int64_t> process_;
    // What the agent says, or has said last.
    Dictionary known_;
    bool isRealtime_ = false;
    Spool spool_;
    std::vector<Task> tasks_;
};

}  // namespace sentrova::control
