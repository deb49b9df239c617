#include "service/AgentLock.h"

#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "foundation/files/FileSystem.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("AgentLock");

// The holder's process id from the file, for a message; empty if the file has no process id.
std::string holderOf(FileSystem& files, const std::string& path) {
    constexpr std::size_t kLongest = 10;
    auto text = files.readText(path).optional().value_or("");
    while (text.ends_with('\n')) {
        text.pop_back();
    }
    const bool isNumber = !text.empty() && text.size() <= kLongest &&
                          std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
    return isNumber ? fmt::format(", process {},", text) : "";
}

}  // namespace

AgentLock::AgentLock(FileSystem& files) {
    const auto path = fmt::format("{}/{}", GlobalConstants::CONF_PATH, GlobalConstants::AGENT_LOCK_FILE);
    auto locked = files.lock(path, fmt::format("{}\n", ::getpid()));
    if (locked) {
        file_ = *std::move(locked);
    } else if (locked.error().code == EWOULDBLOCK) {
        const auto problem = fmt::format("Another agent{} holds {}; this one ends", holderOf(files, path), path);
        kLog.error("{}", problem);
        throw AlreadyRunningError(problem);
    } else {
        kLog.error("The agent runs without its lock, so a second agent would not be detected: {}",
                   locked.error().description);
    }
}

}  // namespace sentrova
