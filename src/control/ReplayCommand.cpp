#include "control/ReplayCommand.h"

#include "control/ControlHost.h"
#include "control/ReplayHistory.h"
#include "control/ReplayPosition.h"
#include "control/ReplayTrails.h"
#include "control/TimeArgument.h"
#include "platform/ServiceManager.h"
#include "platform/posix/FileLock.h"
#include "platform/posix/SystemClock.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <optional>
#include <span>
#include <thread>
#include <utility>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

constexpr std::chrono::seconds kEndAwaited{60};
constexpr const char* kNothingChanged = "nothing was changed";
constexpr const char* kStopFirst = "stop it first through its service manager, or let --restart stop and start it";

// The agent that ran when the command began. A stopped one is started again with the end of the object, if a service
// manager can do that.
class StoppedAgent {
  public:
    explicit StoppedAgent(Console& console) : console_(console) {}
    ~StoppedAgent() { start(); }
    StoppedAgent(const StoppedAgent&) = delete;
    StoppedAgent& operator=(const StoppedAgent&) = delete;

    // The process may still be ending when the function returns. Returns the reason for a failure, in words.
    std::optional<std::string> stop(const AgentProcess& process) {
        // A Ctrl-C from here on would leave the agent stopped.
        for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
            std::signal(number, SIG_IGN);
        }
        if (process.processId() && manager_->manages(*process.processId())) {
            // Also after a failure: the manager may have done a part of it.
            isManaged_ = true;
            return manager_->stop();
        }
        if (!process.signal(SIGTERM)) {
            return "the process that holds the lock cannot be stopped";
        }
        isSignalled_ = true;
        return std::nullopt;
    }

    // Returns false if the agent was to be started and was not.
    bool start() {
        if (std::exchange(isSignalled_, false)) {
            console_.print("The agent was stopped. Start it through its service manager.\n");
        }
        if (!std::exchange(isManaged_, false)) {
            return true;
        }
        if (const auto problem = manager_->start()) {
            console_.problem(fmt::format("the agent was stopped and could not be started again: {}", *problem));
            return false;
        }
        console_.print("The agent was started again.\n");
        return true;
    }

  private:
    Console& console_;
    const std::unique_ptr<platform::ServiceManager> manager_ = platform::ServiceManager::make();
    bool isManaged_ = false;
    bool isSignalled_ = false;
};

// An agent that was told to end holds the lock for a moment longer. Trying all the time also keeps a service manager
// from starting the next agent in between.
Result<FileDescriptor> lockOut(const InstallationFolder& installation, bool isEnding) {
    constexpr std::chrono::milliseconds kBetween{5};
    const auto deadline = std::chrono::steady_clock::now() + kEndAwaited;
    for (;;) {
        auto lock = platform::lockOut(installation.lockFile());
        if (lock || lock.error().code != EWOULDBLOCK || !isEnding || std::chrono::steady_clock::now() >= deadline) {
            return lock;
        }
        std::this_thread::sleep_for(kBetween);
    }
}

std::optional<std::string> refusalOf(const Result<ReplayPosition>& position, std::uint64_t since) {
    return position ? position->refusal(since) : position.error().description;
}

// Nothing but the files counts: an agent may have run since the trails were counted.
std::optional<std::string> setBack(const InstallationFolder& installation, ControlHost& host, std::uint64_t since) {
    const auto position = ReplayPosition::read(installation, host.files(), host.cryptography());
    if (const auto refusal = refusalOf(position, since)) {
        return fmt::format("{}; {}", *refusal, kNothingChanged);
    }
    ReplayHistory history(installation, host.files(), position->eventsToRead(), since);
    const auto trails = ReplayTrails::read(host.files(), host.cryptography(), since,
                                           [&history](std::span<const std::uint8_t> record) { history.take(record); });
    if (!trails) {
        return fmt::format("{}; {}", trails.error().description, kNothingChanged);
    }
    return position->setBack(*trails, history);
}

// Returns what failed, in words. The lock ends with the function: the agent may start then.
std::optional<std::string> setBackLocked(const InstallationFolder& installation, ControlHost& host, std::uint64_t since,
                                         bool isEnding) {
    const auto lock = lockOut(installation, isEnding);
    if (lock) {
        return setBack(installation, host, since);
    }
    if (lock.error().code != EWOULDBLOCK) {
        return fmt::format("{} cannot be locked: {}; {}", installation.lockFile(), lock.error().description,
                           kNothingChanged);
    }
    return isEnding ? fmt::format("the agent was told to end and still runs after {} s; {}", kEndAwaited.count(),
                                  kNothingChanged)
                    : fmt::format("an agent was started meanwhile; {}; {}", kStopFirst, kNothingChanged);
}

}  // namespace

ReplayCommand::ReplayCommand(CLI::App& program)
    : Command(program, "replay",
              "Have the agent read the trails from a time on again: its server gets the events anew") {
    app().add_option("--since", sinceText_, "From this time on")->type_name("T")->required();
    app().add_flag("--yes", yes_, "Do not ask");
    app().add_flag("--restart", restart_, "Stop a running agent first, and start it afterwards");
    app().footer(fmt::format("T is {}.", kTimeForms));
}

void ReplayCommand::checkArguments() {
    platform::SystemClock clock;
    const auto time = timeArgument(sinceText_, clock.epochSeconds());
    if (!time) {
        throw CLI::ValidationError("--since", fmt::format("\"{}\" is no time; write {}", sinceText_, kTimeForms));
    }
    since_ = static_cast<std::uint64_t>(*time);
}

bool ReplayCommand::isWanted(Console& console) const {
    if (yes_) {
        return true;
    }
    if (::isatty(STDIN_FILENO) != 1) {
        console.problem(fmt::format("standard input is no terminal to ask at; with --yes, replay does not ask; {}",
                                    kNothingChanged));
        return false;
    }
    if (!console.confirms("Shall the agent read them again? The server gets their events once more.")) {
        console.problem(kNothingChanged);
        return false;
    }
    return true;
}

int ReplayCommand::run(Console& console, const InstallationFolder& installation) {
    ControlHost host;
    const auto refuse = [&console](const std::string& reason) {
        console.problem(reason);
        return ExitStatus::kFailed;
    };
    // Everything that can be known before is known before the agent is stopped.
    const auto process = AgentProcess::of(installation);
    if (process.isRunning() && !restart_) {
        return refuse(fmt::format("the agent is running; {}", kStopFirst));
    }
    if (const auto refusal = refusalOf(ReplayPosition::read(installation, host.files(), host.cryptography()), since_)) {
        return refuse(fmt::format("{}; {}", *refusal, kNothingChanged));
    }
    const auto trails = ReplayTrails::read(host.files(), host.cryptography(), since_);
    if (!trails) {
        return refuse(fmt::format("{}; {}", trails.error().description, kNothingChanged));
    }
    console.print(fmt::format("{} trails with {} records at or after {}\n", trails->trails(), trails->records(),
                              timeText(static_cast<std::int64_t>(since_))));
    if (!isWanted(console)) {
        return ExitStatus::kFailed;
    }
    console.flush();

    StoppedAgent agent(console);
    if (process.isRunning()) {
        if (const auto problem = agent.stop(process)) {
            return refuse(fmt::format("the agent was not stopped: {}; {}", *problem, kNothingChanged));
        }
    }
    if (const auto problem = setBackLocked(installation, host, since_, process.isRunning())) {
        return refuse(*problem);
    }
    console.print(process.isRunning() ? "The position was set back.\n"
                                      : "The position was set back. The agent reads the trails again at its next "
                                        "start.\n");
    return agent.start() ? ExitStatus::kDone : ExitStatus::kFailed;
}

}  // namespace sentrova::control
