// The host's file system, in which a single system call can be made to fail, below all retries and clean-up.

#pragma once

#include "foundation/run/Mutex.h"
#include "platform/posix/HostFileSystem.h"
#include "support/SwitchedFileSystem.h"

#include <array>
#include <cerrno>
#include <functional>
#include <map>

namespace sentrova::testing {

// Replaces the fixture's file system as long as the object lives. Safe from any thread.
class FaultyFileSystem final : public platform::HostFileSystem {
  public:
    enum Call : std::size_t { kOpen, kRead, kWrite, kFlush, kTruncate, kRename, kRemove, kStatus, kList, kCalls };

    struct Fault {
        Call call = kOpen;
        // The errno of the failing call; 0 only for a short write.
        int error = 0;
        // The write stores half of its bytes. The next write fails with `error`, unless that is 0.
        bool isShort = false;
        // The number of the failing call among the calls of its kind, from 1; 0 for none.
        std::size_t number = 0;
    };

    // Counts only calls on paths for which the function returns true, and only these fail.
    explicit FaultyFileSystem(std::function<bool(const std::string& path)> concerns) : concerns_(std::move(concerns)) {}

    // Sets the fault and resets the counts.
    void arm(const Fault& fault) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        fault_ = fault;
        calls_ = {};
        met_.clear();
    }
    // The number of calls by kind since the latest arm.
    std::array<std::size_t, kCalls> calls() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return calls_;
    }
    // The path of the failed call. Empty while no call has failed.
    std::string met() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return met_;
    }

    std::ptrdiff_t readOnce(int descriptor, std::span<std::uint8_t> into) override {
        return fails(kRead, pathOf(descriptor)) ? -1 : HostFileSystem::readOnce(descriptor, into);
    }

  protected:
    int hostOpen(const Location& at, int flags, mode_t mode) override EXCLUDES(mutex_) {
        if (fails(kOpen, at.path)) {
            return -1;
        }
        const int descriptor = HostFileSystem::hostOpen(at, flags, mode);
        MutexLock lock(mutex_);
        opened_[descriptor] = at.path;
        return descriptor;
    }
    std::ptrdiff_t hostWrite(int descriptor, std::span<const std::uint8_t> content) override {
        const auto verdict = judge(kWrite, pathOf(descriptor));
        const auto half = content.first(content.size() / 2);
        return verdict == Verdict::fails
                   ? -1
                   : HostFileSystem::hostWrite(descriptor, verdict == Verdict::isShort ? half : content);
    }
    // Does not flush: no test simulates a power loss.
    int hostFlush(int descriptor) override { return fails(kFlush, pathOf(descriptor)) ? -1 : 0; }
    int hostTruncate(int descriptor, std::uint64_t size) override {
        return fails(kTruncate, pathOf(descriptor)) ? -1 : HostFileSystem::hostTruncate(descriptor, size);
    }
    int hostRename(const Location& from, const Location& to) override {
        return fails(kRename, to.path) ? -1 : HostFileSystem::hostRename(from, to);
    }
    int hostRemove(const Location& at) override {
        return fails(kRemove, at.path) ? -1 : HostFileSystem::hostRemove(at);
    }
    int hostStatus(const std::string& path, struct stat& status) override {
        return fails(kStatus, path) ? -1 : HostFileSystem::hostStatus(path, status);
    }
    int hostLinkStatus(const Location& at, struct stat& status) override {
        return fails(kStatus, at.path) ? -1 : HostFileSystem::hostLinkStatus(at, status);
    }
    DIR* hostOpenFolder(const std::string& path) override {
        return fails(kList, path) ? nullptr : HostFileSystem::hostOpenFolder(path);
    }

  private:
    enum class Verdict { passes, fails, isShort };
    // Counts the call, and sets errno for a failing one.
    Verdict judge(Call call, const std::string& path) EXCLUDES(mutex_) {
        if (!concerns_(path)) {
            return Verdict::passes;
        }
        MutexLock lock(mutex_);
        const auto number = ++calls_[call];
        // A short write with an error is two calls: the second one fails.
        const bool isSecond = fault_.isShort && fault_.error != 0 && number == fault_.number + 1;
        if (call != fault_.call || fault_.number == 0 || (number != fault_.number && !isSecond)) {
            return Verdict::passes;
        }
        met_ = path;
        errno = fault_.error;
        return fault_.isShort && !isSecond ? Verdict::isShort : Verdict::fails;
    }
    bool fails(Call call, const std::string& path) { return judge(call, path) == Verdict::fails; }
    std::string pathOf(int descriptor) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return opened_[descriptor];
    }

    const std::function<bool(const std::string&)> concerns_;
    Mutex mutex_;
    Fault fault_ GUARDED_BY(mutex_) = {.number = 0};
    std::array<std::size_t, kCalls> calls_ GUARDED_BY(mutex_) = {};
    std::string met_ GUARDED_BY(mutex_);
    std::map<int, std::string> opened_ GUARDED_BY(mutex_);
    // The last member, because calls arrive as soon as it is constructed.
    const SwitchedFileSystem::Replacement replacement_{*this};
};

}  // namespace sentrova::testing
