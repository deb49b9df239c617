#include "support/ForgetfulFileSystem.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace sentrova::testing {

namespace fs = std::filesystem;

namespace {

// What a disk writes as one.
constexpr std::size_t kSector = 512;

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void put(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
}

std::string parentOf(const std::string& path) {
    return path.substr(0, path.find_last_of('/'));
}

}  // namespace

ForgetfulFileSystem::ForgetfulFileSystem(const fs::path& folder) : folder_(plain(folder)) {
    MutexLock lock(mutex_);
    takeOver();
}

std::size_t ForgetfulFileSystem::operations() {
    MutexLock lock(mutex_);
    return operations_;
}

void ForgetfulFileSystem::stopAfter(std::size_t number) {
    MutexLock lock(mutex_);
    last_ = number;
}

bool ForgetfulFileSystem::isStopped() {
    MutexLock lock(mutex_);
    return isStopped_;
}

void ForgetfulFileSystem::setCapacity(std::uint64_t bytes) {
    MutexLock lock(mutex_);
    capacity_ = bytes;
}

void ForgetfulFileSystem::crash(Crash kind, std::uint64_t seed) {
    MutexLock lock(mutex_);
    if (kind == Crash::powerLoss) {
        losePower(seed);
        takeOver();
    }
    for (auto& [descriptor, opened] : opened_) {
        opened.isDead = true;
    }
    last_.reset();
    isStopped_ = false;
}

void ForgetfulFileSystem::takeOver() {
    changes_.clear();
    names_.clear();
    flushedNames_.clear();
    std::vector<std::string> paths;
    for (const auto& entry : fs::recursive_directory_iterator(folder_)) {
        if (entry.is_regular_file()) {
            paths.push_back(entry.path().string());
        }
    }
    std::ranges::sort(paths);
    for (const auto& path : paths) {
        fileAt(path);
    }
}

void ForgetfulFileSystem::losePower(std::uint64_t seed) {
    std::mt19937_64 random(seed);
    auto names = flushedNames_;
    for (const auto& change : changes_) {
        if (random() % 2 == 0) {
            apply(change, names);
        }
    }
    std::map<std::size_t, std::shared_ptr<File>> files;
    for (const auto& [path, file] : names) {
        files.emplace(file->number, file);
    }
    std::map<std::size_t, std::string> contents;
    for (const auto& [number, file] : files) {
        contents.emplace(number, torn(*file, random));
    }
    for (const auto& [path, file] : names_) {
        if (!names.contains(path)) {
            fs::remove(path);
        }
    }
    for (const auto& [path, file] : names) {
        fs::create_directories(parentOf(path));
        put(path, contents.at(file->number));
    }
}

std::string ForgetfulFileSystem::torn(const File& file, std::mt19937_64& random) {
    const auto kind = random() % 4;
    if (kind < 2) {
        return kind == 0 ? file.flushed : file.now;
    }
    const auto [shorter, longer] = std::minmax({file.flushed.size(), file.now.size()});
    const std::array sizes{shorter, longer, shorter + random() % (longer - shorter + 1)};
    std::string content(sizes.at(random() % sizes.size()), '\0');
    for (std::size_t at = 0; at < content.size(); at += kSector) {
        const auto& source = random() % 2 == 0 ? file.flushed : file.now;
        if (at < source.size()) {
            const auto length = std::min({kSector, source.size() - at, content.size() - at});
            content.replace(at, length, source, at, length);
        }
    }
    return content;
}

void ForgetfulFileSystem::damage(const std::string& path, const std::function<void(std::string&)>& change) {
    auto content = contentOf(path);
    change(content);
    lose(path);
    put(path, content);
    MutexLock lock(mutex_);
    fileAt(plain(path));
}

void ForgetfulFileSystem::lose(const std::string& path) {
    const auto name = plain(path);
    fs::remove(name);
    MutexLock lock(mutex_);
    names_.erase(name);
    flushedNames_.erase(name);
    std::erase_if(changes_, [&](const NameChange& change) { return change.from == name || change.to == name; });
}

std::string ForgetfulFileSystem::plain(const fs::path& path) {
    return fs::absolute(path).lexically_normal().string();
}

bool ForgetfulFileSystem::isInside(const std::string& path) const {
    return path == folder_ || path.starts_with(folder_ + "/");
}

bool ForgetfulFileSystem::mayCall() {
    errno = EIO;
    return !isStopped_;
}

bool ForgetfulFileSystem::mayRead(const std::string& path) {
    MutexLock lock(mutex_);
    return !isInside(plain(path)) || mayCall();
}

bool ForgetfulFileSystem::mayChange() {
    if (!isStopped_) {
        isStopped_ = ++operations_ == last_;
    }
    return mayCall();
}

ForgetfulFileSystem::Opened* ForgetfulFileSystem::openedBy(int descriptor) {
    const auto found = opened_.find(descriptor);
    return found == opened_.end() ? nullptr : &found->second;
}

// Takes over a regular file that somebody else has put there, as a safe one. Null if there is none.
std::shared_ptr<ForgetfulFileSystem::File> ForgetfulFileSystem::fileAt(const std::string& path) {
    auto found = names_.find(path);
    if (found == names_.end() && fs::is_regular_file(path)) {
        const auto content = contentOf(path);
        found = names_.emplace(path, std::make_shared<File>(File{++files_, content, content})).first;
        flushedNames_[path] = found->second;
    }
    return found == names_.end() ? nullptr : found->second;
}

void ForgetfulFileSystem::apply(const NameChange& change, Names& names) {
    names.erase(change.from);
    if (!change.to.empty()) {
        names[change.to] = change.file;
    }
}

void ForgetfulFileSystem::change(const NameChange& change) {
    apply(change, names_);
    changes_.push_back(change);
}

std::uint64_t ForgetfulFileSystem::room() const {
    std::uint64_t used = 0;
    for (const auto& [path, file] : names_) {
        used += file->now.size();
    }
    return used < capacity_ ? capacity_ - used : 0;
}

int ForgetfulFileSystem::hostOpen(const Location& at, int flags, mode_t mode) {
    const auto path = plain(at.path);
    MutexLock lock(mutex_);
    if (!isInside(path)) {
        const int descriptor = HostFileSystem::hostOpen(at, flags, mode);
        opened_.erase(descriptor);
        return descriptor;
    }
    auto file = fileAt(path);
    const bool creates = !file && (flags & O_CREAT) != 0;
    if (creates ? !mayChange() : !mayCall()) {
        return -1;
    }
    const int descriptor = HostFileSystem::hostOpen(at, flags, mode);
    if (descriptor >= 0 && creates) {
        file = std::make_shared<File>(File{++files_, {}, {}});
        change({{}, path, file});
    }
    if (descriptor >= 0) {
        opened_[descriptor] = {path, file};
    }
    return descriptor;
}

std::ptrdiff_t ForgetfulFileSystem::readOnce(int descriptor, std::span<std::uint8_t> into) {
    MutexLock lock(mutex_);
    const auto* const opened = openedBy(descriptor);
    if (opened && (opened->isDead || !mayCall())) {
        errno = EIO;
        return -1;
    }
    lock.unlock();
    return HostFileSystem::readOnce(descriptor, into);
}

std::ptrdiff_t ForgetfulFileSystem::hostWrite(int descriptor, std::span<const std::uint8_t> content) {
    MutexLock lock(mutex_);
    const auto* const opened = openedBy(descriptor);
    if (!opened) {
        return HostFileSystem::hostWrite(descriptor, content);
    }
    if (opened->isDead || isStopped_) {
        errno = EIO;
        return -1;
    }
    const bool isLast = !mayChange();
    auto& now = opened->file->now;
    const bool appends = (::fcntl(descriptor, F_GETFL) & O_APPEND) != 0;
    const auto offset = appends ? now.size() : static_cast<std::size_t>(::lseek(descriptor, 0, SEEK_CUR));
    const auto fits = static_cast<std::size_t>(
        std::min<std::uint64_t>(content.size(), std::max(now.size(), offset) - offset + room()));
    const auto written = HostFileSystem::hostWrite(descriptor, content.first(isLast ? fits / 2 : fits));
    if (written > 0) {
        const auto length = static_cast<std::size_t>(written);
        now.resize(std::max(now.size(), offset + length));
        std::copy_n(content.begin(), length, now.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    if (isLast || (fits == 0 && !content.empty())) {
        errno = isLast ? EIO : ENOSPC;
        return -1;
    }
    return written;
}

int ForgetfulFileSystem::hostFlush(int descriptor) {
    MutexLock lock(mutex_);
    const auto* const opened = openedBy(descriptor);
    // Flushing other files for real would be slow.
    if (!opened) {
        return 0;
    }
    if (opened->isDead || !mayChange()) {
        errno = EIO;
        return -1;
    }
    if (opened->file) {
        opened->file->flushed = opened->file->now;
        return 0;
    }
    const auto isInFolder = [&](const std::string& path) { return parentOf(path) == opened->path; };
    std::vector<NameChange> unflushed;
    for (const auto& change : std::exchange(changes_, {})) {
        if (isInFolder(change.from) || isInFolder(change.to)) {
            apply(change, flushedNames_);
        } else {
            unflushed.push_back(change);
        }
    }
    changes_ = std::move(unflushed);
    return 0;
}

int ForgetfulFileSystem::hostTruncate(int descriptor, std::uint64_t size) {
    MutexLock lock(mutex_);
    const auto* const opened = openedBy(descriptor);
    if (opened && (opened->isDead || !mayChange())) {
        errno = EIO;
        return -1;
    }
    const int result = HostFileSystem::hostTruncate(descriptor, size);
    if (opened && result == 0) {
        opened->file->now.resize(size);
    }
    return result;
}

int ForgetfulFileSystem::hostRename(const Location& from, const Location& to) {
    const auto source = plain(from.path);
    const auto target = plain(to.path);
    if (isInside(source) != isInside(target)) {
        throw std::logic_error("a file is moved in or out of the forgetful folder: " + source + ", " + target);
    }
    MutexLock lock(mutex_);
    const auto file = isInside(source) ? fileAt(source) : nullptr;
    if (isInside(source) && !mayChange()) {
        return -1;
    }
    const int result = HostFileSystem::hostRename(from, to);
    if (file && result == 0) {
        change({source, target, file});
    }
    return result;
}

int ForgetfulFileSystem::hostRemove(const Location& at) {
    const auto path = plain(at.path);
    MutexLock lock(mutex_);
    if (isInside(path)) {
        fileAt(path);
        if (!mayChange()) {
            return -1;
        }
    }
    const int result = HostFileSystem::hostRemove(at);
    const int number = errno;
    for (const auto& [name, file] : Names(names_)) {
        if (!fs::exists(name) && (name == path || name.starts_with(path + "/"))) {
            change({name, {}, file});
        }
    }
    errno = number;
    return result;
}

int ForgetfulFileSystem::hostMakeFolder(const Location& at, mode_t mode) {
    MutexLock lock(mutex_);
    return isInside(plain(at.path)) && !mayChange() ? -1 : HostFileSystem::hostMakeFolder(at, mode);
}

int ForgetfulFileSystem::hostStatus(const std::string& path, struct stat& status) {
    return mayRead(path) ? HostFileSystem::hostStatus(path, status) : -1;
}

int ForgetfulFileSystem::hostLinkStatus(const Location& at, struct stat& status) {
    return mayRead(at.path) ? HostFileSystem::hostLinkStatus(at, status) : -1;
}

DIR* ForgetfulFileSystem::hostOpenFolder(const std::string& path) {
    return mayRead(path) ? HostFileSystem::hostOpenFolder(path) : nullptr;
}

}  // namespace sentrova::testing
