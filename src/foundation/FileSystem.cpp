#include "foundation/FileSystem.h"

#include "platform/FileFacts.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
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
    error.description =
        fmt::format("{} \"{}\": {}", what, path,
                    number == ELOOP ? "a symbolic link is in its place and is not followed" : error.description);
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

// Without a slash at its end, which would have a link followed.
std::string folderOf(const std::string& path) {
    const auto slash = path.find_last_of('/');
    return slash == std::string::npos ? "." : path.substr(0, std::max<std::size_t>(slash, 1));
}

std::string temporaryNameFor(const std::string& name) {
    static std::atomic<unsigned> counter{0};
    return fmt::format(".{}.{}.{}{}", name, ::getpid(), ++counter, kTemporarySuffix);
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

// An own file: its name, and its folder, which was opened as no symbolic link. What is done with the two stays within
// that folder whatever becomes of its path meanwhile.
struct FileSystem::Place {
    FileDescriptor folder;
    Location file;

    Location beside(const std::string& name) const { return {folder.get(), name, folderOf(file.path) + "/" + name}; }
};

FileSystem::Location FileSystem::locationOf(const std::string& path) {
    return {AT_FDCWD, path, path};
}

std::ptrdiff_t FileSystem::readOnce(int descriptor, std::span<std::uint8_t> into) {
    return ::read(descriptor, into.data(), into.size());
}

int FileSystem::hostOpen(const Location& at, int flags, mode_t mode) {
    return ::openat(at.folder, at.name.c_str(), flags, mode);
}

std::ptrdiff_t FileSystem::hostWrite(int descriptor, std::span<const std::uint8_t> content) {
    return ::write(descriptor, content.data(), content.size());
}

int FileSystem::hostFlush(int descriptor) {
    errno = platform::flushToDisk(descriptor);
    return errno == 0 ? 0 : -1;
}

int FileSystem::hostRename(const Location& from, const Location& to) {
    return ::renameat(from.folder, from.name.c_str(), to.folder, to.name.c_str());
}

int FileSystem::hostRemove(const Location& at) {
    struct stat host{};
    if (::fstatat(at.folder, at.name.c_str(), &host, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(host.st_mode)) {
        std::error_code error;
        std::filesystem::remove_all(at.path, error);
        errno = error.value();
        return error ? -1 : 0;
    }
    return ::unlinkat(at.folder, at.name.c_str(), 0);
}

int FileSystem::hostMakeFolder(const Location& at, mode_t mode) {
    return ::mkdirat(at.folder, at.name.c_str(), mode);
}

int FileSystem::hostStatus(const std::string& path, struct stat& status) {
    return ::stat(path.c_str(), &status);
}

int FileSystem::hostLinkStatus(const Location& at, struct stat& status) {
    return ::fstatat(at.folder, at.name.c_str(), &status, AT_SYMLINK_NOFOLLOW);
}

DIR* FileSystem::hostOpenFolder(const std::string& path) {
    return ::opendir(path.c_str());
}

FileDescriptor FileSystem::open(const Location& at, int flags, mode_t mode) {
    int number = -1;
    do {
        number = hostOpen(at, flags | O_CLOEXEC, mode);
    } while (number < 0 && errno == EINTR);
    return FileDescriptor(number);
}

// 0, or the error number.
int FileSystem::flush(int descriptor) {
    while (hostFlush(descriptor) != 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

// 0, or the error number.
int FileSystem::writeWhole(int descriptor, std::span<const std::uint8_t> content) {
    while (!content.empty()) {
        const auto written = hostWrite(descriptor, content);
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

bool FileSystem::isLink(const std::string& path) {
    struct stat host{};
    return hostLinkStatus(locationOf(path), host) == 0 && S_ISLNK(host.st_mode);
}

Result<FileSystem::Place> FileSystem::placeOf(const std::string& path, const char* what) {
    const auto folder = folderOf(path);
    auto opened = open(locationOf(folder), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (!opened) {
        const int number = errno;
        // Hosts disagree on which error it is.
        return failure(isLink(folder) ? ELOOP : number, what, path);
    }
    const int number = opened.get();
    return Place{std::move(opened), {number, path.substr(path.find_last_of('/') + 1), path}};
}

Result<FileStatus> FileSystem::status(const std::string& path) {
    struct stat host{};
    if (hostStatus(path, host) != 0) {
        return failure(errno, "cannot look at", path);
    }
    return fromHost(host);
}

Result<FileStatus> FileSystem::linkStatus(const std::string& path) {
    struct stat host{};
    if (hostLinkStatus(locationOf(path), host) != 0) {
        return failure(errno, "cannot look at", path);
    }
    return fromHost(host);
}

Result<FileDescriptor> FileSystem::openForReading(const std::string& path) {
    auto file = open(locationOf(path), O_RDONLY);
    if (!file) {
        return failure(errno, "cannot open", path);
    }
    return file;
}

template <class Content>
Result<Content> FileSystem::readWhole(const std::string& path) {
    const auto place = placeOf(path, "cannot open");
    if (!place) {
        return place.error();
    }
    // Without blocking, since a pipe in the file's place would hold the thread for good.
    const auto file = open(place->file, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    struct stat host{};
    if (!file || ::fstat(file.get(), &host) != 0) {
        return failure(errno, "cannot open", path);
    }
    if (!S_ISREG(host.st_mode)) {
        return failure(S_ISDIR(host.st_mode) ? EISDIR : EINVAL, "cannot read", path);
    }
    const auto size = static_cast<std::uint64_t>(host.st_size);
    if (size > kMaximumRead) {
        return failure(EFBIG, "cannot read", path);
    }
    // Straight to its place: setting that to zero first costs a fifth of what a second copy would.
    Content content(static_cast<std::size_t>(size), {});
    const std::span bytes(reinterpret_cast<std::uint8_t*>(content.data()), content.size());
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const auto got = readOnce(file.get(), bytes.subspan(filled));
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

Result<Data> FileSystem::read(const std::string& path) {
    return readWhole<Data>(path);
}

Result<std::string> FileSystem::readText(const std::string& path) {
    return readWhole<std::string>(path);
}

Result<Done> FileSystem::writeAtomically(const std::string& path, std::span<const std::uint8_t> content,
                                         Durability durability) {
    const auto place = placeOf(path, "cannot write");
    if (!place) {
        return place.error();
    }
    const auto temporary = place->beside(temporaryNameFor(place->file.name));
    auto file = open(temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kOwnerFile);
    if (!file) {
        return failure(errno, "cannot create", temporary.path);
    }
    int problem = writeWhole(file.get(), content);
    if (problem == 0 && durability == Durability::flushed) {
        problem = flush(file.get());
    }
    file.reset();
    if (problem == 0 && hostRename(temporary, place->file) != 0) {
        problem = errno;
    }
    if (problem != 0) {
        hostRemove(temporary);
        return failure(problem, "cannot write", path);
    }
    if (durability == Durability::flushed) {
        // Without this the name may still be the old one after a loss of power.
        flush(place->folder.get());
    }
    return Done();
}

Result<Done> FileSystem::append(const std::string& path, std::string_view text) {
    // A look is enough for the folder, and spares every line of the log an open and a close: who could exchange the
    // folder between the look and the open owns the installation.
    if (isLink(folderOf(path))) {
        return failure(ELOOP, "cannot open", path);
    }
    const auto file = open(locationOf(path), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK, kOwnerFile);
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
    const auto place = placeOf(path, "cannot create");
    if (!place) {
        return place.error();
    }
    const auto file = open(place->file, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kOwnerFile);
    if (!file) {
        return failure(errno, "cannot create", path);
    }
    return Done();
}

Result<Done> FileSystem::createFolder(const std::string& path) {
    const auto place = placeOf(path, "cannot create the folder");
    if (!place) {
        return place.error();
    }
    if (hostMakeFolder(place->file, kOwnerFolder) != 0) {
        return failure(errno, "cannot create the folder", path);
    }
    return Done();
}

Result<Done> FileSystem::restrictToOwner(const std::string& path) {
    const auto place = placeOf(path, "cannot open");
    if (!place) {
        return place.error();
    }
    const auto file = open(place->file, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (!file || ::fchmod(file.get(), kOwnerFile) != 0) {
        return failure(errno, "cannot restrict", path);
    }
    return Done();
}

Result<Done> FileSystem::remove(const std::string& path) {
    const auto place = placeOf(path, "cannot remove");
    if (!place) {
        return place.error();
    }
    if (hostRemove(place->file) != 0 && errno != ENOENT) {
        return failure(errno, "cannot remove", path);
    }
    return Done();
}

Result<Done> FileSystem::move(const std::string& from, const std::string& to) {
    const auto source = placeOf(from, "cannot move");
    const auto destination = placeOf(to, "cannot move to");
    if (!source || !destination) {
        return source ? destination.error() : source.error();
    }
    struct stat host{};
    // A destination that cannot be looked at may be there.
    if (const bool there = hostLinkStatus(destination->file, host) == 0; there || errno != ENOENT) {
        return failure(there ? EEXIST : errno, "cannot move to", to);
    }
    if (hostRename(source->file, destination->file) != 0) {
        return failure(errno, "cannot move", from);
    }
    return Done();
}

Result<std::vector<std::string>> FileSystem::names(const std::string& folder) {
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(hostOpenFolder(folder), [](DIR* d) { return ::closedir(d); });
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

Result<std::vector<std::string>> FileSystem::ownNames(const std::string& folder) {
    const auto status = linkStatus(folder);
    if (!status) {
        return status.error();
    }
    return status->isSymbolicLink ? failure(ELOOP, "cannot list", folder) : names(folder);
}

Result<Done> FileSystem::checkNoLink(const std::string& path) {
    for (const auto& each : {path, folderOf(path)}) {
        const auto status = linkStatus(each);
        if (status ? status->isSymbolicLink : status.error().code != ENOENT) {
            return status ? failure(ELOOP, "cannot use", each) : status.error();
        }
    }
    return Done();
}

bool FileSystem::isTemporaryName(std::string_view name) {
    return name.starts_with('.') && name.ends_with(kTemporarySuffix);
}

}  // namespace sentrova
