#include "platform/posix/FileLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>
#include <utility>

namespace sentrova::platform {

namespace {

struct flock wholeFile(short type) {
    struct flock lock{};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

std::optional<pid_t> holderOf(int file) {
    auto lock = wholeFile(F_RDLCK);
    if (::fcntl(file, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK || lock.l_pid <= 0) {
        return std::nullopt;
    }
    return lock.l_pid;
}

// Returns 0 or an error number.
int exclude(int file) {
    // Whoever asks for the state holds the first lock for an instant, but never the second.
    constexpr int kAttempts = 50;
    constexpr std::chrono::milliseconds kBetween{10};
    for (int attempt = 1; ::flock(file, LOCK_EX | LOCK_NB) != 0; ++attempt) {
        const int problem = errno;
        if (problem != EWOULDBLOCK || attempt == kAttempts || holderOf(file)) {
            return problem;
        }
        std::this_thread::sleep_for(kBetween);
    }
    return 0;
}

}  // namespace

// Two locks of different kinds. The one of flock excludes other agents: it stays until all descriptors of this open
// file are closed. The one of fcntl tells who holds it: the kernel answers with the process.
int lockFile(int file) {
    if (const int problem = exclude(file); problem != 0) {
        return problem;
    }
    auto lock = wholeFile(F_WRLCK);
    static_cast<void>(::fcntl(file, F_SETLK, &lock));
    return 0;
}

Result<FileDescriptor> lockOut(const std::string& path) {
    FileDescriptor file(
        ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, S_IRUSR | S_IWUSR));
    const int problem = file ? exclude(file.get()) : errno;
    return problem == 0 ? Result<FileDescriptor>(std::move(file)) : posixError(problem);
}

LockState lockState(const std::string& path) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file) {
        return {};
    }
    if (const auto holder = holderOf(file.get())) {
        return {.isHeld = true, .holder = holder};
    }
    if (::flock(file.get(), LOCK_SH | LOCK_NB) == 0 || errno != EWOULDBLOCK) {
        return {};
    }
    // An agent between its two locks.
    return {.isHeld = true, .holder = holderOf(file.get())};
}

}  // namespace sentrova::platform
