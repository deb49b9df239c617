#include "control/AgentQuestion.h"

#include "foundation/formats/Json.h"

#include <csignal>
#include <cstdint>
#include <thread>
#include <utility>

namespace sentrova::control {

namespace {

// The identity of the file's content: a new file takes the place of the old one at each writing.
using Edition = std::optional<std::pair<std::uint64_t, Date>>;

Edition editionOf(FileSystem& files, const std::string& path) {
    const auto status = files.status(path);
    return status ? Edition(std::pair(status->identity, status->modificationDate)) : std::nullopt;
}

}  // namespace

std::optional<Dictionary> AgentQuestion::known() const {
    const auto text = files_.readText(installation_.statusFile());
    const auto parsed = text ? Json::parse(*text) : Result<Value>(text.error());
    const auto* const content = parsed ? parsed->dictionary() : nullptr;
    return content ? std::optional(*content) : std::nullopt;
}

std::optional<Dictionary> AgentQuestion::ask(const AgentProcess& process) const {
    // A signal that comes before the agent can answer has no effect, and two signals at once may count as one.
    constexpr std::chrono::milliseconds kSignalledEach{1000};
    constexpr std::chrono::milliseconds kLookedEach{5};
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + kPatience;
    const auto before = editionOf(files_, installation_.statusFile());
    auto signalAt = Clock::now();
    while (Clock::now() < deadline) {
        if (Clock::now() >= signalAt) {
            if (!process.signal(SIGUSR1)) {
                return std::nullopt;
            }
            signalAt += kSignalledEach;
        }
        std::this_thread::sleep_for(kLookedEach);
        if (editionOf(files_, installation_.statusFile()) == before) {
            continue;
        }
        auto content = known();
        if (content && (*content)["pid"].integerValue() == process.processId()) {
            return content;
        }
    }
    return std::nullopt;
}

}  // namespace sentrova::control
