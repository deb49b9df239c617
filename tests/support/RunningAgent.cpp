#include "support/RunningAgent.h"

#include "foundation/formats/Json.h"
#include "platform/Environment.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <set>
#include <system_error>
#include <thread>

namespace sentrova::testing {

namespace {

constexpr std::chrono::milliseconds kBetweenLooks{5};

// Arguments: 1. the working directory, 2. the system volume, 3. the program, 4. not empty to run as root of a
// namespace.
constexpr const char* kScript = R"(cd "$1" && export SENTROVA_SYSTEM_VOLUME="$2" TZ=UTC && exec ${4:+unshare -r} "$3")";

}  // namespace

std::optional<std::string> whyNoAgentRuns() {
    // If unshare fails, it prints the cause on standard error.
    if (::geteuid() == 0 || std::system("unshare -r true") == 0) {
        return std::nullopt;
    }
    return "the agent runs as root only, and this system refuses an ordinary user the namespace to be root in; run the "
           "tests as root, or permit user namespaces";
}

RunningAgent::RunningAgent(const std::filesystem::path& program, const SystemVolume& volume) {
    std::vector<std::string> words = {
        "sh", "-c", kScript, "sh", volume.bin().string(), volume.volume().string(), program.string()};
    if (::geteuid() != 0) {
        words.emplace_back("as-root");
    }
    std::vector<char*> pointers;
    for (auto& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions{};
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const int problem =
        ::posix_spawn(&process_, "/bin/sh", &actions, nullptr, pointers.data(), platform::environment());
    ::posix_spawn_file_actions_destroy(&actions);
    if (problem != 0) {
        throw std::system_error(problem, std::generic_category(), "sh");
    }
}

RunningAgent::~RunningAgent() {
    if (!status_) {
        signal(SIGKILL);
        wait();
    }
}

void RunningAgent::signal(int number) const {
    ::kill(process_, number);
}

std::optional<int> RunningAgent::wait(std::chrono::milliseconds time) {
    const auto ended = [this] {
        int status = 0;
        if (!status_ && ::waitpid(process_, &status, WNOHANG) == process_) {
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        return status_.has_value();
    };
    return waitUntil(ended, time) ? status_ : std::nullopt;
}

std::optional<int> RunningAgent::stop(std::chrono::milliseconds time) {
    signal(SIGTERM);
    return wait(time);
}

std::string logOf(const SystemVolume& volume, std::string_view category) {
    std::set<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(volume.logs())) {
        if (entry.path().filename().string().starts_with(category)) {
            files.insert(entry.path());
        }
    }
    std::string text;
    for (const auto& file : files) {
        text += textOf(file);
    }
    return text;
}

bool waitForLog(const SystemVolume& volume, std::string_view category, std::string_view text,
                std::chrono::seconds time) {
    return waitUntil([&] { return logOf(volume, category).find(text) != std::string::npos; }, time);
}

Dictionary loopbackConfiguration(int port) {
    auto configuration = *Json::parse(R"({
        "DomainName": "corp.example.com", "OrgAccessKey": "org-key", "ServerIP": "127.0.0.1", "ServerFQDN": "localhost",
        "ServerName": "LocalHost", "Protocol": "http", "AgentProtocol": "http", "NATServerName": "-",
        "NATProtocol": "http", "IsRealTime": false, "isEnabled": true, "NumberofEventsPerRequest": 4,
        "MaxEventDataSize": 1, "EventsToRead": "AUE_auth_user,AUE_sudo,AUE_logout"})")
                              ->dictionary();
    for (const auto* key : {"Port", "AgentPort", "NATPort"}) {
        configuration.set(key, port);
    }
    return configuration;
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds time) {
    const auto giveUp = std::chrono::steady_clock::now() + time;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= giveUp) {
            return false;
        }
        std::this_thread::sleep_for(kBetweenLooks);
    }
    return true;
}

}  // namespace sentrova::testing
