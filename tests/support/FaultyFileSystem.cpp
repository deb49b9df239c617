#include "support/FaultyFileSystem.h"

#include <cerrno>
#include <utility>

namespace sentrova::testing {

FaultyFileSystem::FaultyFileSystem(std::function<bool(const std::string&)> concerns) : concerns_(std::move(concerns)) {
    install(this);
}

FaultyFileSystem::~FaultyFileSystem() {
    install(nullptr);
}

void FaultyFileSystem::arm(const Fault& fault) {
    MutexLock lock(mutex_);
    fault_ = fault;
    calls_ = {};
    met_.clear();
}

std::array<std::size_t, FaultyFileSystem::kCalls> FaultyFileSystem::calls() {
    MutexLock lock(mutex_);
    return calls_;
}

std::string FaultyFileSystem::met() {
    MutexLock lock(mutex_);
    return met_;
}

FaultyFileSystem::Verdict FaultyFileSystem::judge(Call call, const std::string& path) {
    if (!concerns_(path)) {
        return Verdict::passes;
    }
    MutexLock lock(mutex_);
    const auto number = ++calls_[call];
    // A short write that is followed by an error is two calls.
    const bool isSecond = fault_.isShort && fault_.error != 0 && number == fault_.number + 1;
    if (call != fault_.call || fault_.number == 0 || (number != fault_.number && !isSecond)) {
        return Verdict::passes;
    }
    met_ = path;
    if (fault_.isShort && number == fault_.number) {
        return Verdict::isShort;
    }
    errno = fault_.error;
    return Verdict::fails;
}

std::string FaultyFileSystem::pathOf(int descriptor) {
    MutexLock lock(mutex_);
    return opened_[descriptor];
}

int FaultyFileSystem::hostOpen(const Location& at, int flags, mode_t mode) {
    if (fails(kOpen, at.path)) {
        return -1;
    }
    const int descriptor = FileSystem::hostOpen(at, flags, mode);
    MutexLock lock(mutex_);
    opened_[descriptor] = at.path;
    return descriptor;
}

std::ptrdiff_t FaultyFileSystem::readOnce(int descriptor, std::span<std::uint8_t> into) {
    return fails(kRead, pathOf(descriptor)) ? -1 : FileSystem::readOnce(descriptor, into);
}

std::ptrdiff_t FaultyFileSystem::hostWrite(int descriptor, std::span<const std::uint8_t> content) {
    const auto verdict = judge(kWrite, pathOf(descriptor));
    if (verdict == Verdict::fails) {
        return -1;
    }
    return FileSystem::hostWrite(descriptor, verdict == Verdict::isShort ? content.first(content.size() / 2) : content);
}

int FaultyFileSystem::hostFlush(int descriptor) {
    // No test outlives a loss of power.
    return fails(kFlush, pathOf(descriptor)) ? -1 : 0;
}

int FaultyFileSystem::hostRename(const Location& from, const Location& to) {
    return fails(kRename, to.path) ? -1 : FileSystem::hostRename(from, to);
}

int FaultyFileSystem::hostRemove(const Location& at) {
    return fails(kRemove, at.path) ? -1 : FileSystem::hostRemove(at);
}

int FaultyFileSystem::hostStatus(const std::string& path, struct stat& status) {
    return fails(kStatus, path) ? -1 : FileSystem::hostStatus(path, status);
}

int FaultyFileSystem::hostLinkStatus(const Location& at, struct stat& status) {
    return fails(kStatus, at.path) ? -1 : FileSystem::hostLinkStatus(at, status);
}

DIR* FaultyFileSystem::hostOpenFolder(const std::string& path) {
    return fails(kList, path) ? nullptr : FileSystem::hostOpenFolder(path);
}

}  // namespace sentrova::testing
