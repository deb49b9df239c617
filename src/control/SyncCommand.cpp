#include "control/SyncCommand.h"

#include "control/AgentProcess.h"
#include "control/AgentQuestion.h"
#include "platform/posix/HostFileSystem.h"

#include <chrono>
#include <csignal>
#include <thread>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

constexpr std::chrono::milliseconds kAskedEach{250};

const Value& syncIn(const Dictionary& status, std::string_view key) {
    static const Value kNothing;
    const auto* const sync = status["sync"].dictionary();
    return sync ? (*sync)[key] : kNothing;
}

int notRunning(Console& console) {
    console.problem("the agent is not running");
    return ExitStatus::kNotRunning;
}

// Why the agent gave no answer: it has ended, or it hangs.
int unanswered(Console& console, const InstallationFolder& installation, const AgentProcess& process) {
    const auto present = AgentProcess::of(installation);
    if (!present.isRunning() || present.processId() != process.processId()) {
        console.problem("the agent has ended");
        return ExitStatus::kNotRunning;
    }
    console.problem(fmt::format("the agent (process {}) does not answer", process.processId().value_or(0)));
    return ExitStatus::kFailed;
}

int outcomeOf(Console& console, const Dictionary& status) {
    const auto* const round = syncIn(status, "last").dictionary();
    const auto text = round ? (*round)["text"].description() : "the agent does not tell the outcome";
    if (round && (*round)["outcome"] == Value("applied")) {
        console.print(fmt::format("Synchronised: {}\n", text));
        return ExitStatus::kDone;
    }
    const auto* const server = status["server"].dictionary();
    const auto* const failure = server ? (*server)["last_failure"].dictionary() : nullptr;
    console.problem(fmt::format("the sync failed: {}{}", text,
                                failure ? fmt::format(" ({})", (*failure)["text"].description()) : ""));
    return ExitStatus::kFailed;
}

}  // namespace

SyncCommand::SyncCommand(CLI::App& program)
    : Command(program, "sync", "Synchronise the configuration with the server now, and wait for the outcome") {}

int SyncCommand::run(Console& console, const InstallationFolder& installation) {
    platform::HostFileSystem files;
    const auto process = AgentProcess::of(installation);
    if (!process.isRunning()) {
        return notRunning(console);
    }
    const AgentQuestion question(installation, files);
    auto status = question.ask(process);
    if (!status) {
        return unanswered(console, installation, process);
    }
    const auto asked = syncIn(*status, "asked").integerValue();
    if (!process.signal(SIGHUP)) {
        return unanswered(console, installation, process);
    }
    // A round over all addresses takes minutes if none answers.
    do {
        std::this_thread::sleep_for(kAskedEach);
        status = question.ask(process);
        if (!status) {
            return unanswered(console, installation, process);
        }
    } while (syncIn(*status, "served").integerValue() <= asked);
    return outcomeOf(console, *status);
}

}  // namespace sentrova::control
