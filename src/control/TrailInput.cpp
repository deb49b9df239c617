#include "control/TrailInput.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace sentrova::control {

Result<std::unique_ptr<TrailInput>> TrailInput::open(const std::string& path) {
    FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    struct stat host{};
    if (!file || ::fstat(file.get(), &host) != 0) {
        return posixError(errno);
    }
    if (S_ISDIR(host.st_mode)) {
        return posixError(EISDIR);
    }
    const int number = file.get();
    return std::unique_ptr<TrailInput>(new TrailInput(std::move(file), number));  // NOLINT: the constructor is private
}

std::unique_ptr<TrailInput> TrailInput::standardInput() {
    return std::unique_ptr<TrailInput>(new TrailInput({}, STDIN_FILENO));  // NOLINT: the constructor is private
}

std::ptrdiff_t TrailInput::read(std::span<std::uint8_t> into) {
    for (;;) {
        const auto got = ::read(number_, into.data(), into.size());
        if (got > 0 && tell_) {
            tell_(static_cast<std::size_t>(got));
        }
        if (got >= 0 || errno != EINTR) {
            problem_ = got < 0 ? errno : 0;
            return got;
        }
    }
}

std::optional<std::uint64_t> TrailInput::size() const {
    struct stat host{};
    return file_ && ::fstat(number_, &host) == 0 && S_ISREG(host.st_mode) ? std::optional<std::uint64_t>(host.st_size)
                                                                          : std::nullopt;
}

}  // namespace sentrova::control
