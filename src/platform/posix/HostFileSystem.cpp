#include "platform/posix/HostFileSystem.h"

#include "platform/FileFacts.h"
#include "platform/posix/FileLock.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <memory>

#include <fmt/format.h>

namespace sentrova::platform {

namespace {

constexpr std::string_view kTemporarySuffix = ".sentrova-tmp";
constexpr mode_t kOwnerFile = S_IRUSR | S_IWUSR;
constexpr mode_t kOwnerFolder = S_IRWXU;
constexpr std::size_t kCopyBlock = 256 * 1024;

Error failure(int number, const char* what, const std::string& path) {
    auto error = posixError(number);
    error.description =
        fmt::format("{} \"{}\": {}", what, path,
                    number == ELOOP ? "a symbolic link in this path is not followed" : error.description);
    return error;
}

FileStatus fromHost(const struct stat& host) {
    FileStatus status;
    status.size = static_cast<std::uint64_t>(host.st_size);
    status.allocatedSize = static_cast<std::uint64_t>(host.st_blocks) * 512;
    status.modificationDate = modificationDate(host);
    status.owner = host.st_uid;
    status.group = host.st_gid;
    status.permissions = host.st_mode & static_cast<mode_t>(07777);
    status.isFolder = S_ISDIR(host.st_mode);
    status.isRegular = S_ISREG(host.st_mode);
    status.isSymbolicLink = S_ISLNK(host.st_mode);
    status.identity = static_cast<std::uint64_t>(host.st_ino);
    status.device = static_cast<std::uint64_t>(host.st_dev);
    return status;
}

// The folder without a trailing slash, because a trailing slash would make the host follow a link.
std::string folderOf(const std::string& path) {
    const auto slash = path.find_last_of('/');
    return slash == std::string::npos ? "." : path.substr(0, std::max<std::size_t>(slash, 1));
}

std::string nameOf(const std::string& path) {
    return path.substr(path.find_last_of('/') + 1);
}

bool isMissing(int number) {
    return number == ENOENT || number == ENOTDIR;
}

// Whether only the process's own user can create or replace entries in the folder.
bool isWrittenByUsAlone(const struct stat& folder) {
    return folder.st_uid == ::geteuid() && (folder.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// A longer chain of links counts as a circle.
constexpr int kMostLinks = 8;

// Ignores failures: some volumes do not store dates.
void keepModificationDate(int descriptor, Date date) {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(date);
    const std::chrono::nanoseconds rest = date - seconds;
    const timespec modified{static_cast<time_t>(seconds.time_since_epoch().count()), static_cast<long>(rest.count())};
    const std::array times{timespec{0, UTIME_OMIT}, modified};
    static_cast<void>(::futimens(descriptor, times.data()));
}

std::string temporaryNameFor(const std::string& name) {
    static std::atomic<unsigned> counter{0};
    return fmt::format(".{}.{}.{}{}", name, ::getpid(), ++counter, kTemporarySuffix);
}

}  // namespace

// One of the agent's own files: its open folder and its name. Calls with the two stay within that folder, even if its
// path changes meanwhile.
struct HostFileSystem::Place {
    FileDescriptor folder;
    Location file;

    Location beside(const std::string& name) const { return {folder.get(), name, folderOf(file.path) + "/" + name}; }
};

// The number of bytes written, and the error number that ended the write (0 if it succeeded).
struct HostFileSystem::Written {
    std::size_t bytes = 0;
    int problem = 0;
};

class HostFileSystem::Writable final : public OpenFile {
  public:
    Writable(HostFileSystem& files, FileDescriptor file, std::string path)
        : files_(files), file_(std::move(file)), path_(std::move(path)) {}

    Result<Done> write(std::uint64_t offset, std::span<const std::uint8_t> content) override {
        if (::lseek(file_.get(), static_cast<off_t>(offset), SEEK_SET) < 0) {
            return failure(errno, "cannot write", path_);
        }
        return doneOr(files_.writeWhole(file_.get(), content).problem, "cannot write");
    }
    Result<Done> flush() override { return doneOr(files_.flush(file_.get()), "cannot flush"); }
    Result<Done> truncate(std::uint64_t size) override {
        return doneOr(files_.truncate(file_.get(), size), "cannot truncate");
    }

  private:
    Result<Done> doneOr(int problem, const char* what) const {
        return problem == 0 ? Result<Done>(Done()) : failure(problem, what, path_);
    }

    HostFileSystem& files_;
    const FileDescriptor file_;
    const std::string path_;
};

HostFileSystem::Location HostFileSystem::locationOf(const std::string& path) {
    return {AT_FDCWD, path, path};
}

std::ptrdiff_t HostFileSystem::readOnce(int descriptor, std::span<std::uint8_t> into) {
    return ::read(descriptor, into.data(), into.size());
}

int HostFileSystem::hostOpen(const Location& at, int flags, mode_t mode) {
    return ::openat(at.folder, at.name.c_str(), flags, mode);
}

std::ptrdiff_t HostFileSystem::hostWrite(int descriptor, std::span<const std::uint8_t> content) {
    return ::write(descriptor, content.data(), content.size());
}

int HostFileSystem::hostFlush(int descriptor) {
    errno = flushToDisk(descriptor);
    return errno == 0 ? 0 : -1;
}

int HostFileSystem::hostTruncate(int descriptor, std::uint64_t size) {
    return ::ftruncate(descriptor, static_cast<off_t>(size));
}

int HostFileSystem::hostRename(const Location& from, const Location& to) {
    return ::renameat(from.folder, from.name.c_str(), to.folder, to.name.c_str());
}

int HostFileSystem::hostRemove(const Location& at) {
    struct stat host{};
    if (::fstatat(at.folder, at.name.c_str(), &host, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(host.st_mode)) {
        std::error_code error;
        std::filesystem::remove_all(at.path, error);
        errno = error.value();
        return error ? -1 : 0;
    }
    return ::unlinkat(at.folder, at.name.c_str(), 0);
}

int HostFileSystem::hostMakeFolder(const Location& at, mode_t mode) {
    return ::mkdirat(at.folder, at.name.c_str(), mode);
}

int HostFileSystem::hostStatus(const std::string& path, struct stat& status) {
    return ::stat(path.c_str(), &status);
}

int HostFileSystem::hostLinkStatus(const Location& at, struct stat& status) {
    return ::fstatat(at.folder, at.name.c_str(), &status, AT_SYMLINK_NOFOLLOW);
}

DIR* HostFileSystem::hostOpenFolder(const std::string& path) {
    return ::opendir(path.c_str());
}

FileDescriptor HostFileSystem::open(const Location& at, int flags, mode_t mode) {
    int number = -1;
    do {
        number = hostOpen(at, flags | O_CLOEXEC, mode);
    } while (number < 0 && errno == EINTR);
    return FileDescriptor(number);
}

// Opens one of the agent's own files and gets its status. Fails for a link, a folder or a device. Errors name `path`.
Result<FileDescriptor> HostFileSystem::openRegular(const Location& at, int flags, struct stat& host,
                                                   const std::string& path) {
    // O_NONBLOCK, because a FIFO in the place of the file would block the thread for ever.
    auto file = open(at, flags | O_NOFOLLOW | O_NONBLOCK, kOwnerFile);
    if (!file || ::fstat(file.get(), &host) != 0) {
        return failure(errno, "cannot open", path);
    }
    if (!S_ISREG(host.st_mode)) {
        return failure(S_ISDIR(host.st_mode) ? EISDIR : EINVAL, "cannot open", path);
    }
    return file;
}

// Returns 0 or an error number.
int HostFileSystem::flush(int descriptor) {
    while (hostFlush(descriptor) != 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

// Returns 0 or an error number.
int HostFileSystem::truncate(int descriptor, std::uint64_t size) {
    while (hostTruncate(descriptor, size) != 0) {
        if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

HostFileSystem::Written HostFileSystem::writeWhole(int descriptor, std::span<const std::uint8_t> content) {
    std::size_t done = 0;
    while (done < content.size()) {
        const auto written = hostWrite(descriptor, content.subspan(done));
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written < 0) {
            return {done, errno};
        }
        done += static_cast<std::size_t>(written);
    }
    return {done, 0};
}

bool HostFileSystem::isLink(const std::string& path) {
    struct stat host{};
    return hostLinkStatus(locationOf(path), host) == 0 && S_ISLNK(host.st_mode);
}

// The path that a link points to. Absent if anybody but the process's user could have created the link.
std::optional<std::string> HostFileSystem::targetOf(const Location& link) {
    struct stat folder{};
    struct stat host{};
    if (::fstat(link.folder, &folder) != 0 || !isWrittenByUsAlone(folder) || hostLinkStatus(link, host) != 0 ||
        host.st_uid != ::geteuid()) {
        return std::nullopt;
    }
    std::array<char, PATH_MAX> text{};
    const auto length = ::readlinkat(link.folder, link.name.c_str(), text.data(), text.size());
    if (length <= 0) {
        return std::nullopt;
    }
    std::string target(text.data(), static_cast<std::size_t>(length));
    target.resize(std::max<std::size_t>(target.find_last_not_of('/') + 1, 1));
    return target.starts_with('/') ? target : folderOf(link.path) + "/" + target;
}

Result<FileDescriptor> HostFileSystem::openOwnFolder(std::string folder, const char* what, const std::string& forPath) {
    for (int links = 0; links <= kMostLinks; ++links) {
        auto opened = open(locationOf(folder), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
        const int number = errno;
        if (opened) {
            return opened;
        }
        // Hosts report different errors for a link, so the error number does not tell.
        if (!isLink(folder)) {
            return failure(number, what, forPath);
        }
        const auto parent = open(locationOf(folderOf(folder)), O_RDONLY | O_DIRECTORY);
        const auto target = parent ? targetOf({parent.get(), nameOf(folder), folder}) : std::nullopt;
        if (!target) {
            break;
        }
        folder = *target;
    }
    return failure(ELOOP, what, forPath);
}

// The place of the path itself. The file may be a link.
Result<HostFileSystem::Place> HostFileSystem::placeOf(const std::string& path, const char* what) {
    auto folder = openOwnFolder(folderOf(path), what, path);
    if (!folder) {
        return folder.error();
    }
    const int number = folder->get();
    return Place{*std::move(folder), {number, nameOf(path), path}};
}

// The place at the end of the links that are followed. Callers open it with O_NOFOLLOW, so that a link created
// meanwhile is not followed.
Result<HostFileSystem::Place> HostFileSystem::targetPlaceOf(const std::string& path, const char* what) {
    auto target = std::optional(path);
    for (int links = 0; target && links <= kMostLinks; ++links) {
        auto place = placeOf(*target, what);
        if (!place) {
            return place;
        }
        struct stat host{};
        if (hostLinkStatus(place->file, host) != 0) {
            return errno == ENOENT ? std::move(place) : failure(errno, what, path);
        }
        if (!S_ISLNK(host.st_mode)) {
            return place;
        }
        target = targetOf(place->file);
    }
    return failure(ELOOP, what, path);
}

Result<FileStatus> HostFileSystem::status(const std::string& path) {
    struct stat host{};
    if (hostStatus(path, host) != 0) {
        return failure(errno, "cannot get the status of", path);
    }
    return fromHost(host);
}

Result<FileStatus> HostFileSystem::linkStatus(const std::string& path) {
    struct stat host{};
    if (hostLinkStatus(locationOf(path), host) != 0) {
        return failure(errno, "cannot get the status of", path);
    }
    return fromHost(host);
}

Result<FileDescriptor> HostFileSystem::openForReading(const std::string& path) {
    // Without these flags, opening a FIFO would wait for a writer, and a terminal would become the controlling terminal
    // of the process.
    auto file = open(locationOf(path), O_RDONLY | O_NONBLOCK | O_NOCTTY);
    struct stat host{};
    if (!file || ::fstat(file.get(), &host) != 0) {
        return failure(errno, "cannot open", path);
    }
    if (!S_ISREG(host.st_mode)) {
        return Error{kPosixErrorDomain, EINVAL, fmt::format("\"{}\" is skipped: it is not a regular file", path)};
    }
    return file;
}

template <class Content>
Result<Content> HostFileSystem::readWhole(const std::string& path) {
    const auto place = targetPlaceOf(path, "cannot open");
    if (!place) {
        return place.error();
    }
    struct stat host{};
    const auto file = openRegular(place->file, O_RDONLY, host, path);
    if (!file) {
        return file.error();
    }
    const auto size = static_cast<std::uint64_t>(host.st_size);
    if (size > kMaximumRead) {
        return failure(EFBIG, "cannot read", path);
    }
    // Reads straight into the result. Setting it to zero first costs a fifth of what a second copy would.
    Content content(static_cast<std::size_t>(size), {});
    const std::span bytes(reinterpret_cast<std::uint8_t*>(content.data()), content.size());
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const auto got = readOnce(file->get(), bytes.subspan(filled));
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

Result<Data> HostFileSystem::read(const std::string& path) {
    return readWhole<Data>(path);
}

Result<std::string> HostFileSystem::readText(const std::string& path) {
    return readWhole<std::string>(path);
}

// Creates a temporary file, lets `fill` write it, and renames it. `fill` returns 0 or an error number.
Result<Done> HostFileSystem::putInPlace(const Place& place, Durability durability,
                                        const std::function<int(int descriptor)>& fill) {
    const auto temporary = place.beside(temporaryNameFor(place.file.name));
    auto file = open(temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kOwnerFile);
    if (!file) {
        return failure(errno, "cannot create", temporary.path);
    }
    int problem = fill(file.get());
    if (problem == 0 && durability == Durability::flushed) {
        problem = flush(file.get());
    }
    file.reset();
    if (problem == 0 && hostRename(temporary, place.file) != 0) {
        problem = errno;
    }
    if (problem != 0) {
        hostRemove(temporary);
        return failure(problem, "cannot write", place.file.path);
    }
    if (durability == Durability::flushed) {
        // Flushes the folder too. Otherwise a power loss could undo the rename.
        flush(place.folder.get());
    }
    return Done();
}

Result<Done> HostFileSystem::writeAtomically(const std::string& path, std::span<const std::uint8_t> content,
                                             Durability durability) {
    auto place = targetPlaceOf(path, "cannot write");
    if (!place && place.error().code == ELOOP) {
        // A link that is not followed is itself replaced, unless the folder is the link.
        place = placeOf(path, "cannot write");
    }
    if (!place) {
        return place.error();
    }
    return putInPlace(*place, durability,
                      [this, content](int descriptor) { return writeWhole(descriptor, content).problem; });
}

Result<Done> HostFileSystem::append(const std::string& path, std::string_view text) {
    constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK;
    MutexLock lock(appending_);
    // Only checks whether the folder is a link and does not open it, which saves each log line an open and a close.
    // Only the owner of the installation could replace the folder between the check and the open.
    const bool isInLink = isLink(folderOf(path));
    auto file = isInLink ? FileDescriptor() : open(locationOf(path), kFlags, kOwnerFile);
    if (!file && (isInLink || errno == ELOOP)) {
        const auto place = targetPlaceOf(path, "cannot open");
        if (!place) {
            return place.error();
        }
        file = open(place->file, kFlags, kOwnerFile);
    }
    if (!file) {
        return failure(errno, "cannot open", path);
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto written = writeWhole(file.get(), {bytes, text.size()});
    if (written.problem == 0) {
        return Done();
    }
    // Removes the partial text only if it is at the end of the file: another process may have appended since.
    const auto end = ::lseek(file.get(), 0, SEEK_CUR);
    struct stat host{};
    if (written.bytes > 0 && ::fstat(file.get(), &host) == 0 && host.st_size == end) {
        truncate(file.get(), static_cast<std::uint64_t>(end) - written.bytes);
    }
    return failure(written.problem, "cannot write", path);
}

Result<std::unique_ptr<OpenFile>> HostFileSystem::openForWriting(const std::string& path) {
    const auto place = targetPlaceOf(path, "cannot open");
    if (!place) {
        return place.error();
    }
    struct stat host{};
    auto file = openRegular(place->file, O_WRONLY | O_CREAT, host, path);
    if (!file) {
        return file.error();
    }
    return std::unique_ptr<OpenFile>(std::make_unique<Writable>(*this, *std::move(file), path));
}

Result<Done> HostFileSystem::flushFile(const std::string& path) {
    const auto place = targetPlaceOf(path, "cannot open");
    if (!place) {
        return place.error();
    }
    struct stat host{};
    const auto file = openRegular(place->file, O_RDONLY, host, path);
    if (!file) {
        return file.error();
    }
    int problem = flush(file->get());
    if (problem == 0) {
        problem = flush(place->folder.get());
    }
    return problem == 0 ? Result<Done>(Done()) : failure(problem, "cannot flush", path);
}

Result<bool> HostFileSystem::endsWithLineFeed(const std::string& path) {
    const auto place = targetPlaceOf(path, "cannot open");
    if (!place) {
        return isMissing(static_cast<int>(place.error().code)) ? Result<bool>(true) : place.error();
    }
    const auto file = open(place->file, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (!file) {
        return isMissing(errno) ? Result<bool>(true) : failure(errno, "cannot open", path);
    }
    struct stat host{};
    char last = '\n';
    if (::fstat(file.get(), &host) != 0 || (host.st_size > 0 && ::pread(file.get(), &last, 1, host.st_size - 1) != 1)) {
        return failure(errno, "cannot read", path);
    }
    return last == '\n';
}

Result<Done> HostFileSystem::createFile(const std::string& path) {
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

Result<FileDescriptor> HostFileSystem::lock(const std::string& path, std::string_view content) {
    const auto place = placeOf(path, "cannot lock");
    if (!place) {
        return place.error();
    }
    auto file = open(place->file, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK, kOwnerFile);
    struct stat host{};
    if (!file || ::fstat(file.get(), &host) != 0) {
        return failure(errno, "cannot open", path);
    }
    if (!S_ISREG(host.st_mode)) {
        return failure(EINVAL, "cannot lock", path);
    }
    if (const int problem = lockFile(file.get()); problem != 0) {
        return failure(problem, "cannot lock", path);
    }
    if (truncate(file.get(), 0) == 0) {
        writeWhole(file.get(), {reinterpret_cast<const std::uint8_t*>(content.data()), content.size()});
    }
    return file;
}

Result<Done> HostFileSystem::createFolder(const std::string& path) {
    const auto place = placeOf(path, "cannot create the folder");
    if (!place) {
        return place.error();
    }
    if (hostMakeFolder(place->file, kOwnerFolder) != 0) {
        return failure(errno, "cannot create the folder", path);
    }
    return Done();
}

Result<Done> HostFileSystem::restrictToOwner(const std::string& path) {
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

Result<Done> HostFileSystem::remove(const std::string& path) {
    const auto place = placeOf(path, "cannot remove");
    if (!place) {
        return place.error();
    }
    if (hostRemove(place->file) != 0 && errno != ENOENT) {
        return failure(errno, "cannot remove", path);
    }
    return Done();
}

Result<Done> HostFileSystem::move(const std::string& from, const std::string& to) {
    const auto source = placeOf(from, "cannot move");
    const auto destination = placeOf(to, "cannot move to");
    if (!source || !destination) {
        return source ? destination.error() : source.error();
    }
    struct stat host{};
    // If the status of the destination is unknown, the destination may exist.
    if (const bool there = hostLinkStatus(destination->file, host) == 0; there || errno != ENOENT) {
        return failure(there ? EEXIST : errno, "cannot move to", to);
    }
    if (hostRename(source->file, destination->file) == 0) {
        return Done();
    }
    return errno == EXDEV ? moveToOtherVolume(*source, *destination) : failure(errno, "cannot move", from);
}

// Returns 0 or an error number.
int HostFileSystem::copyContent(int from, int to) {
    std::vector<std::uint8_t> block(kCopyBlock);
    for (;;) {
        const auto got = readOnce(from, block);
        if (got == 0) {
            return 0;
        }
        if (got < 0 && errno != EINTR) {
            return errno;
        }
        const auto part = std::span(block).first(static_cast<std::size_t>(std::max<std::ptrdiff_t>(got, 0)));
        if (const auto written = writeWhole(to, part); written.problem != 0) {
            return written.problem;
        }
    }
}

Result<Done> HostFileSystem::moveToOtherVolume(const Place& from, const Place& to) {
    const auto source = open(from.file, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    struct stat host{};
    if (!source || ::fstat(source.get(), &host) != 0) {
        return failure(errno, "cannot move", from.file.path);
    }
    if (!S_ISREG(host.st_mode)) {
        return failure(EXDEV, "cannot move", from.file.path);
    }
    const auto copied = putInPlace(to, Durability::flushed, [&](int descriptor) {
        const int problem = copyContent(source.get(), descriptor);
        keepModificationDate(descriptor, modificationDate(host));
        return problem;
    });
    if (!copied) {
        return copied.error();
    }
    if (hostRemove(from.file) != 0) {
        const int number = errno;
        hostRemove(to.file);
        return failure(number, "cannot move", from.file.path);
    }
    return Done();
}

Result<std::vector<std::string>> HostFileSystem::names(const std::string& folder) {
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

Result<std::vector<std::string>> HostFileSystem::ownNames(const std::string& folder) {
    const auto own = openOwnFolder(folder, "cannot list", folder);
    return own ? names(folder) : own.error();
}

Result<Done> HostFileSystem::checkOwnFolder(const std::string& folder) {
    const auto own = openOwnFolder(folder, "cannot use", folder);
    return own ? Result<Done>(Done()) : own.error();
}

Result<Done> HostFileSystem::checkLinks(const std::string& path) {
    const auto place = targetPlaceOf(path, "cannot use");
    return place || isMissing(static_cast<int>(place.error().code)) ? Result<Done>(Done()) : place.error();
}

bool HostFileSystem::isTemporaryName(std::string_view name) const {
    return name.starts_with('.') && name.ends_with(kTemporarySuffix);
}

}  // namespace sentrova::platform
