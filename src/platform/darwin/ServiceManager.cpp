#include "platform/ServiceManager.h"

#include "platform/posix/Process.h"

#include <chrono>
#include <iterator>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace sentrova::platform {

namespace {

// packaging/macos/installation.sh has the same names and calls.
constexpr const char* kTarget = "system/com.kelvark.vantorix.sentrova.agent";
constexpr const char* kJob = "/Library/LaunchDaemons/com.kelvark.vantorix.sentrova.agent.plist";
// The job gives the agent 30 seconds to end before it is killed.
constexpr std::chrono::seconds kEndAwaited{60};

struct Answer {
    bool succeeded = false;
    std::string text;
};

Answer launchctl(std::vector<std::string> arguments) {
    // Its messages come with its output.
    std::vector<std::string> words = {"-c", R"(exec /bin/launchctl "$@" 2>&1)", "sh"};
    words.insert(words.end(), std::make_move_iterator(arguments.begin()), std::make_move_iterator(arguments.end()));
    Process process("/bin/sh", std::move(words));
    try {
        process.launch();
    } catch (const ProcessLaunchError& error) {
        return {.succeeded = false, .text = error.what()};
    }
    const auto output = process.readDataToEndOfFile();
    process.waitUntilExit();
    return {.succeeded = process.terminationStatus() == 0, .text = std::string(output.begin(), output.end())};
}

Answer job() {
    return launchctl({"print", kTarget});
}

class Launchd final : public ServiceManager {
  public:
    bool manages(pid_t process) override {
        const auto answer = job();
        return answer.succeeded && answer.text.find(fmt::format("\tpid = {}\n", process)) != std::string::npos;
    }

    std::optional<std::string> stop() override {
        // A job that needs time to end makes this fail, though it is ending.
        const auto answer = launchctl({"bootout", kTarget});
        const auto deadline = std::chrono::steady_clock::now() + kEndAwaited;
        while (job().succeeded) {
            if (std::chrono::steady_clock::now() >= deadline) {
                return fmt::format("launchctl bootout: the job is still loaded; {}", answer.text);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
        }
        return std::nullopt;
    }

    // launchd may refuse a job for a moment after its stop, and the status of "load" is always 0.
    std::optional<std::string> start() override {
        constexpr int kAttempts = 3;
        std::string text;
        for (int attempt = 1; attempt <= kAttempts; ++attempt) {
            if (attempt > 1) {
                std::this_thread::sleep_for(std::chrono::seconds(2));
            }
            const auto answer = launchctl({"bootstrap", "system", kJob});
            text = answer.text;
            if (!answer.succeeded) {
                text += launchctl({"load", "-w", kJob}).text;
            }
            if (job().succeeded) {
                return std::nullopt;
            }
        }
        return fmt::format("launchctl bootstrap system {}: {}", kJob, text);
    }
};

}  // namespace

std::unique_ptr<ServiceManager> ServiceManager::make() {
    return std::make_unique<Launchd>();
}

}  // namespace sentrova::platform
