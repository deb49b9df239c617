#include "foundation/FileSystem.h"

#include "platform/FileFacts.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr std::string_view kTemporarySuffix = ".sentrova-tmp";
constexpr mode_t kOwnerFile = S_IRUSR | S_IWUSR;
constexpr mode_t kOwnerFolder = S_IRWXU;

std::atomic<FileSystem*> installedFileSystem{nullptr};

Error failure(int number, const char* what, const std::string& path) {
    auto error = posixError(number);
    error.description = fmt::format("{} \"{}\": {}", what, path, error.description);
    return error;
}

FileStatus fromHost(const struct stat& host) {
    FileStatus status;
    status.size = static_cast<std::uint64_t>(host.st_size);
    status.allocatedSize = static_cast<std::uint64_t>(host.st_blocks) * 512;
    status.modificationDate = platform::modificationDate(host);
    status.owner = host.st_uid;
    status.group = host.st_gid;
    status.permissions = host.st_mode & static_cast<mode_t>(07777);
    status.isFolder = S_ISDIR(host.st_mode);
    status.isRegular = S_ISREG(host.st_mode);
    status.isSymbolicLink = S_ISLNK(host.st_mode);
    status.identity = static_cast<std::uint64_t>(host.st_ino);
    return status;
}

int openAgain(const char* path, int flags, mode_t mode = 0) {
    int number = -1;
    do {
        number = ::open(path, flags | O_CLOEXEC, mode);
    } while (number < 0 && errno == EINTR);
    return number;
}

// 0, or the error number.
int writeWhole(int descriptor, std::span<const std::uint8_t> content) {
    while (!content.empty()) {
        const auto written = ::write(descriptor, content.data(), content.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return errno;
        }
        content = content.subspan(static_cast<std::size_t>(written));
    }
    return 0;
}

std::string folderOf(const std::string& path) {
    const auto slash = path.find_last_of('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

std::string temporaryPathFor(const std::string& path) {
    static std::atomic<unsigned> counter{0};
    const auto folder = folderOf(path);
    const auto name = path.substr(path.find_last_of('/') + 1);
    return fmt::format("{}/.{}.{}.{}{}", folder, name, ::getpid(), ++counter, kTemporarySuffix);
}

}  // namespace

FileSystem& FileSystem::shared() {
    if (auto* fileSystem = installedFileSystem.load(std::memory_order_acquire)) {
        return *fileSystem;
    }
    static FileSystem host;
    return host;
}

void FileSystem::install(FileSystem* fileSystem) {
    installedFileSystem.store(fileSystem, std::memory_order_release);
}

Result<FileStatus> FileSystem::status(const std::string& path) {
    struct stat host{};
    if (::stat(path.c_str(), &host) != 0) {
        return failure(errno, "cannot look at", path);
    }
    return fromHost(host);
}

Result<FileStatus> FileSystem::linkStatus(const std::string& path) {
    struct stat host{};
    if (::lstat(path.c_str(), &host) != 0) {
        return failure(errno, "cannot look at", path);
    }
    return fromHost(host);
}

Result<FileDescriptor> FileSystem::openForReading(const std::string& path) {
    FileDescriptor file(openAgain(path.c_str(), O_RDONLY));
    if (!file) {
        return failure(errno, "cannot open", path);
    }
    return file;
}

Result<Data> FileSystem::read(const std::string& path) {
    const FileDescriptor file(openAgain(path.c_str(), O_RDONLY));
    struct stat host{};
    if (!file || ::fstat(file.get(), &host) != 0) {
        return failure(errno, "cannot open", path);
    }
    if (!S_ISREG(host.st_mode)) {
        return failure(S_ISDIR(host.st_mode) ? EISDIR : EINVAL, "cannot read", path);
    }
    if (static_cast<std::uint64_t>(host.st_size) > kMaximumRead) {
        return failure(EFBIG, "cannot read", path);
    }
    Data content(static_cast<std::size_t>(host.st_size));
    std::size_t filled = 0;
    while (filled < content.size()) {
        const auto got = ::read(file.get(), content.data() + filled, content.size() - filled);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return failure(errno, "cannot read", path);
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<std::size_t>(got);
    }
    content.resize(filled);
    return content;
}

Result<Done> FileSystem::writeAtomically(const std::string& path, std::span<const std::uint8_t> content,
                                         Durability durability) {
    const auto temporary = temporaryPathFor(path);
    FileDescriptor file(openAgain(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kOwnerFile));
    if (!file) {
        return failure(errno, "cannot create", temporary);
    }
    int problem = writeWhole(file.get(), content);
    if (problem == 0 && durability == Durability::flushed) {
        problem = platform::flushToDisk(file.get());
    }
    file.reset();
    if (problem == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) {
        problem = errno;
    }
    if (problem != 0) {
        ::unlink(temporary.c_str());
        return failure(problem, "cannot write", path);
    }
    if (durability == Durability::flushed) {
        // Without this the name may still be the old one after a loss of power.
        const FileDescriptor folder(openAgain(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY));
        if (folder) {
            platform::flushToDisk(folder.get());
        }
    }
    return Done();
}

Result<Done> FileSystem::append(const std::string& path, std::string_view text) {
    const FileDescriptor file(openAgain(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW, kOwnerFile));
    if (!file) {
        return failure(errno, "cannot open", path);
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    if (const int problem = writeWhole(file.get(), {bytes, text.size()}); problem != 0) {
        return failure(problem, "cannot write", path);
    }
    return Done();
}

Result<Done> FileSystem::createFile(const std::string& path) {
    const FileDescriptor file(openAgain(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kOwnerFile));
    if (!file) {
        return failure(errno, "cannot create", path);
    }
    return Done();
}

Result<Done> FileSystem::createFolder(const std::string& path) {
    if (::mkdir(path.c_str(), kOwnerFolder) != 0) {
        return failure(errno, "cannot create the folder", path);
    }
    return Done();
}

Result<Done> FileSystem::remove(const std::string& path) {
    std::error_code error;
    std::filesystem::remove_all(path, error);
    if (error) {
        return failure(error.value(), "cannot remove", path);
    }
    return Done();
}

Result<Done> FileSystem::move(const std::string& from, const std::string& to) {
    if (linkStatus(to)) {
        return failure(EEXIST, "cannot move to", to);
    }
    if (::rename(from.c_str(), to.c_str()) != 0) {
        return failure(errno, "cannot move", from);
    }
    return Done();
}

Result<std::vector<std::string>> FileSystem::names(const std::string& folder) {
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(::opendir(folder.c_str()), [](DIR* d) { return ::closedir(d); });
    if (!stream) {
        return failure(errno, "cannot list", folder);
    }
    std::vector<std::string> names;
    for (;;) {
        errno = 0;
        const dirent* const entry =
            ::readdir(stream.get());  // NOLINT(concurrency-mt-unsafe): the stream is this function's own
        if (!entry) {
            break;
        }
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
    }
    if (errno != 0) {
        return failure(errno, "cannot list", folder);
    }
    return names;
}

bool FileSystem::isTemporaryName(std::string_view name) {
    return name.starts_with('.') && name.ends_with(kTemporarySuffix);
}

}  // namespace sentrova
