#include "control/SpoolRetry.h"

#include "control/AgentProcess.h"
#include "control/AgentQuestion.h"
#include "control/Command.h"
#include "control/EventTable.h"
#include "forwarding/DurableSpool.h"
#include "forwarding/RetryRequests.h"
#include "forwarding/SpoolFile.h"
#include "foundation/value/Text.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <ctime>
#include <thread>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

constexpr std::chrono::milliseconds kLookedEach{20};

// The agent checks it too. A name that is not UTF-8 cannot stand in a request.
bool mayBeSent(const SpooledFile& file) {
    const bool isBatch = SpoolFile::isKept(file.name) && file.events;
    return (file.state == SpooledFile::State::refused || isBatch) && isValidUtf8(file.name);
}

}  // namespace

void SpoolRetry::fail(const std::string& problem) {
    console_.problem(problem);
    hasFailed_ = true;
}

void SpoolRetry::choose(const std::vector<std::string>& names) {
    for (const auto& name : names) {
        const auto shown = EventTable::visible(name);
        const auto file = content_.described(name, nullptr);
        if (name.find('/') != std::string::npos) {
            fail(fmt::format("{}: a name of the spool has no folder", shown));
        } else if (!file) {
            fail(fmt::format("{}: is not in the spool; \"sentrovactl spool list\" has the names", shown));
        } else {
            choose(*file);
        }
    }
}

void SpoolRetry::choose(const SpooledFile& file) {
    if (file.state == SpooledFile::State::waiting) {
        console_.print(
            fmt::format("{} waits to be sent already; nothing is changed\n", EventTable::visible(file.name)));
    } else if (!mayBeSent(file)) {
        fail(fmt::format("{}: cannot be sent: {}", EventTable::visible(file.name), file.reason));
    } else if (std::ranges::find(chosen_, file.name) == chosen_.end()) {
        chosen_.push_back(file.name);
    }
}

// The events of an altered file may have come by another way, so such a file must be named.
void SpoolRetry::chooseAll() {
    for (const auto& file : content_.described(nullptr)) {
        const bool isAltered = file.name.starts_with(DurableSpool::kAlteredPrefix);
        if (file.state == SpooledFile::State::waiting) {
            continue;
        }
        if (!isAltered && mayBeSent(file)) {
            choose(file);
        } else {
            console_.print(fmt::format("{} is left out: {}{}\n", EventTable::visible(file.name), file.reason,
                                       isAltered ? "; name it to have it sent all the same" : ""));
        }
    }
    if (chosen_.empty()) {
        console_.print("No batch was refused; nothing is sent again\n");
    }
}

int SpoolRetry::request() {
    if (!chosen_.empty()) {
        const auto written = RetryRequests::write(files_, installation_.spool(), chosen_, std::time(nullptr));
        if (!written) {
            fail("the request to the agent cannot be written: " + written.error().description);
        } else if (handOver(*written) != ExitStatus::kDone) {
            hasFailed_ = true;
        }
    }
    return hasFailed_ ? ExitStatus::kFailed : ExitStatus::kDone;
}

int SpoolRetry::handOver(const std::string& request) {
    const auto process = AgentProcess::of(installation_);
    if (process.isRunning() && !process.signal(SIGHUP) && AgentProcess::of(installation_).isRunning()) {
        console_.problem("the agent cannot be signalled; the request waits for its next start");
        return ExitStatus::kFailed;
    }
    return await(request);
}

int SpoolRetry::await(const std::string& request) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + AgentQuestion::kPatience;
    while (files_.linkStatus(request)) {
        if (!AgentProcess::of(installation_).isRunning()) {
            console_.print(fmt::format("The agent is not running; at its next start it sends again: {}\n",
                                       fmt::join(chosen_, " ")));
            return ExitStatus::kDone;
        }
        if (Clock::now() >= deadline) {
            console_.problem(
                "the agent has not taken up the request; it does so once its first sync has succeeded, or at its next "
                "start. \"sentrovactl status\" tells what it waits for");
            return ExitStatus::kFailed;
        }
        std::this_thread::sleep_for(kLookedEach);
    }
    return outcome();
}

// A kept file that was taken up has another name.
int SpoolRetry::outcome() {
    int status = ExitStatus::kDone;
    for (const auto& name : chosen_) {
        if (SpoolFile::isKept(name) && files_.linkStatus(installation_.spool() + "/" + name)) {
            console_.problem(fmt::format("{}: the agent did not take it; the newest Config log tells why", name));
            status = ExitStatus::kFailed;
        } else {
            console_.print(fmt::format("{} is sent again\n", name));
        }
    }
    return status;
}

}  // namespace sentrova::control
