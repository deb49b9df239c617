// The host's files with single calls that fail on demand, below all that repeats a call or cleans up after one.

#pragma once

#include "foundation/FileSystem.h"
#include "foundation/Mutex.h"

#include <array>
#include <cstddef>
#include <functional>
#include <map>
#include <string>

namespace sentrova::testing {

// Installs itself as the process's file system for its lifetime. Safe from any thread.
class FaultyFileSystem final : public FileSystem {
  public:
    enum Call : std::size_t { kOpen, kRead, kWrite, kFlush, kRename, kRemove, kStatus, kList, kCalls };

    struct Fault {
        Call call = kOpen;
        // What the call answers in errno; 0 only for a short write.
        int error = 0;
        // A write takes half of its bytes; the next one meets the error, if there is one.
        bool isShort = false;
        // Which call of its kind meets it, from 1; 0 for none.
        std::size_t number = 0;
    };

    // Only calls on paths that the function says yes to are counted and fail.
    explicit FaultyFileSystem(std::function<bool(const std::string& path)> concerns);
    ~FaultyFileSystem() override;

    // Counts from 0 again.
    void arm(const Fault& fault) EXCLUDES(mutex_);
    // The calls since the last arm, or the beginning.
    std::array<std::size_t, kCalls> calls() EXCLUDES(mutex_);
    // The path whose call has failed; empty while none has.
    std::string met() EXCLUDES(mutex_);

    std::ptrdiff_t readOnce(int descriptor, std::span<std::uint8_t> into) override;

  protected:
    int hostOpen(const Location& at, int flags, mode_t mode) override;
    std::ptrdiff_t hostWrite(int descriptor, std::span<const std::uint8_t> content) override;
    int hostFlush(int descriptor) override;
    int hostRename(const Location& from, const Location& to) override;
    int hostRemove(const Location& at) override;
    int hostStatus(const std::string& path, struct stat& status) override;
    int hostLinkStatus(const Location& at, struct stat& status) override;
    DIR* hostOpenFolder(const std::string& path) override;

  private:
    enum class Verdict { passes, fails, isShort };
    // Counts the call; errno is set for one that fails.
    Verdict judge(Call call, const std::string& path) EXCLUDES(mutex_);
    bool fails(Call call, const std::string& path) { return judge(call, path) == Verdict::fails; }
    std::string pathOf(int descriptor) EXCLUDES(mutex_);

    const std::function<bool(const std::string&)> concerns_;
    Mutex mutex_;
    Fault fault_ GUARDED_BY(mutex_) = {.number = 0};
    std::array<std::size_t, kCalls> calls_ GUARDED_BY(mutex_) = {};
    std::string met_ GUARDED_BY(mutex_);
    std::map<int, std::string> opened_ GUARDED_BY(mutex_);
};

}  // namespace sentrova::testing
