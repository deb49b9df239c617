#include "platform/posix/Process.h"

#include "platform/ChildDescriptors.h"
#include "platform/Environment.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <system_error>

#include <fmt/format.h>

namespace sentrova::platform {

namespace {

class SpawnActions {
  public:
    SpawnActions() { posix_spawn_file_actions_init(&actions_); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
    posix_spawn_file_actions_t* get() { return &actions_; }

  private:
    posix_spawn_file_actions_t actions_{};
};

class SpawnAttributes {
  public:
    SpawnAttributes() { posix_spawnattr_init(&attributes_); }
    ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;
    posix_spawnattr_t* get() { return &attributes_; }

  private:
    posix_spawnattr_t attributes_{};
};

[[noreturn]] void refuse(const std::string& path, int number) {
    throw ProcessLaunchError(fmt::format("cannot launch \"{}\": {}", path, std::generic_category().message(number)));
}

}  // namespace

Process::Process(std::string launchPath, std::vector<std::string> arguments)
    : launchPath_(std::move(launchPath)), arguments_(std::move(arguments)) {}

Process::~Process() {
    output_.reset();
    waitUntilExit();
}

void Process::launch() {
    if (child_ >= 0) {
        throw ProcessLaunchError(fmt::format("\"{}\" was launched before", launchPath_));
    }
    auto pipe = platform::makePipe();
    if (!pipe) {
        refuse(launchPath_, errno);
    }

    SpawnActions actions;
    posix_spawn_file_actions_adddup2(actions.get(), pipe->writing.get(), STDOUT_FILENO);
    // Restores the default signal handling in the child. The agent ignores SIGTERM, and a child inherits ignored
    // signals.
    SpawnAttributes attributes;
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(attributes.get(), &signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGPIPE);
    sigaddset(&signals, SIGCHLD);
    posix_spawnattr_setsigdefault(attributes.get(), &signals);
    posix_spawnattr_setflags(attributes.get(), POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    if (const int number = platform::inheritStandardStreamsAlone(*actions.get(), *attributes.get()); number != 0) {
        refuse(launchPath_, number);
    }

    auto texts = arguments_;
    texts.insert(texts.begin(), launchPath_);
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (auto& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);

    const int problem = ::posix_spawn(&child_, launchPath_.c_str(), actions.get(), attributes.get(), pointers.data(),
                                      platform::environment());
    if (problem != 0) {
        child_ = -1;
        refuse(launchPath_, problem);
    }
    running_ = true;
    output_ = std::move(pipe->reading);
}

Data Process::readAvailableData() {
    Data piece(64 * 1024);
    ssize_t got = 0;
    do {
        got = output_ ? ::read(output_.get(), piece.data(), piece.size()) : 0;
    } while (got < 0 && errno == EINTR);
    piece.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return piece;
}

Data Process::readDataToEndOfFile() {
    Data whole;
    for (auto piece = readAvailableData(); !piece.empty(); piece = readAvailableData()) {
        whole.insert(whole.end(), piece.begin(), piece.end());
    }
    return whole;
}

void Process::terminate() {
    if (running_) {
        ::kill(child_, SIGTERM);
    }
}

void Process::waitUntilExit() {
    if (!running_) {
        return;
    }
    int status = 0;
    pid_t ended = -1;
    do {
        ended = ::waitpid(child_, &status, 0);
    } while (ended < 0 && errno == EINTR);
    running_ = false;
    if (ended != child_) {
        // While the process ignores SIGCHLD, the system does not keep a child's status.
        terminationStatus_ = kUnknownStatus;
    } else {
        terminationStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status);
    }
}

}  // namespace sentrova::platform
