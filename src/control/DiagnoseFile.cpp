#include "control/DiagnoseFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

constexpr std::array kHeld{SIGINT, SIGTERM, SIGHUP};
constexpr mode_t kForTheOwner = 0600;

}  // namespace

DiagnoseFile::HeldSignals::HeldSignals() {
    sigset_t held;
    sigemptyset(&held);
    for (const int number : kHeld) {
        sigaddset(&held, number);
    }
    ::pthread_sigmask(SIG_BLOCK, &held, &before_);
}

DiagnoseFile::HeldSignals::~HeldSignals() {
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

DiagnoseFile::DiagnoseFile(const std::string& path) : path_(path) {
    const std::filesystem::path whole = path;
    name_ = whole.filename().string();
    const auto folder = whole.has_parent_path() ? whole.parent_path().string() : ".";
    folder_ = FileDescriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder_) {
        fail(errno);
    }
    if (name_.empty()) {
        fail(path.empty() ? ENOENT : EISDIR);
    }
    struct stat present{};
    if (::fstatat(folder_.get(), name_.c_str(), &present, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISREG(present.st_mode) &&
        !S_ISLNK(present.st_mode)) {
        throw std::runtime_error(fmt::format("{} cannot be written: it is not a regular file", path));
    }
    // A name that is taken may be that of a link which somebody else has made.
    for (int number = 0; !file_; ++number) {
        temporary_ = fmt::format(".sentrova-diagnose.{}.{}", ::getpid(), number);
        file_ = FileDescriptor(::openat(folder_.get(), temporary_.c_str(),
                                        O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kForTheOwner));
        if (!file_ && errno != EEXIST) {
            fail(errno);
        }
    }
}

DiagnoseFile::~DiagnoseFile() {
    if (!temporary_.empty() && file_) {
        ::unlinkat(folder_.get(), temporary_.c_str(), 0);
    }
}

void DiagnoseFile::checkSignals() const {
    sigset_t waiting;
    ::sigpending(&waiting);
    for (const int number : kHeld) {
        if (sigismember(&waiting, number) == 1) {
            throw std::runtime_error(fmt::format("interrupted; {} was not written", path_));
        }
    }
}

void DiagnoseFile::keep() {
    // A umask may have taken more than the rights of others.
    if (::fchmod(file_.get(), kForTheOwner) != 0 || ::fsync(file_.get()) != 0 ||
        ::renameat(folder_.get(), temporary_.c_str(), folder_.get(), name_.c_str()) != 0) {
        fail(errno);
    }
    temporary_.clear();
}

void DiagnoseFile::fail(int number) const {
    throw std::system_error(number, std::generic_category(), fmt::format("{} cannot be written", path_));
}

}  // namespace sentrova::control
