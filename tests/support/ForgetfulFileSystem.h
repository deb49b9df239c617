// The host's file system with a folder that forgets at a crash what was not flushed.

#pragma once

#include "foundation/run/Mutex.h"
#include "platform/posix/HostFileSystem.h"
#include "support/SwitchedFileSystem.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

namespace sentrova::testing {

// The folder holds the files as a kill would leave them. Beside them, this class keeps what a power loss would leave:
// content is safe after a flush of its file, and a created, renamed or removed name after a flush of its folder. Files
// that are already in the folder are safe. Links are not supported, a file is not moved in or out of the folder, and
// folders themselves are always safe.
//
// Every system call that changes something counts as one operation, so a crash also strikes between the steps of one
// call of FileSystem. Replaces the fixture's file system as long as the object lives. Calls for files elsewhere go to
// the host alone. Safe from any thread.
class ForgetfulFileSystem final : public platform::HostFileSystem {
  public:
    explicit ForgetfulFileSystem(const std::filesystem::path& folder);

    // The number of changing system calls so far.
    std::size_t operations() EXCLUDES(mutex_);
    // The operation with this number, counted like operations(), and everything after it fails with EIO and changes
    // nothing. If it is a write, it first writes half of its bytes.
    void stopAfter(std::size_t number) EXCLUDES(mutex_);
    // Whether that operation was reached.
    bool isStopped() EXCLUDES(mutex_);

    enum class Crash { kill, powerLoss };
    // Leaves in the folder what the next start finds, and lets calls succeed again. Files that are still open become
    // unusable. After a power loss, each unflushed change of a name may be there or not, in any combination, and each
    // sector of an unflushed file may be old or new. The seed decides. After a kill, what was not flushed is still
    // there, but a later power loss may take it.
    void crash(Crash kind, std::uint64_t seed = 0) EXCLUDES(mutex_);

    // From now on, a write that would make all files together longer fails with ENOSPC, after it has written what fits.
    void setCapacity(std::uint64_t bytes) EXCLUDES(mutex_);

    // Damages a file, or removes it. The result is safe. No file there may be open.
    void damage(const std::string& path, const std::function<void(std::string& content)>& change) EXCLUDES(mutex_);
    void lose(const std::string& path) EXCLUDES(mutex_);

    std::ptrdiff_t readOnce(int descriptor, std::span<std::uint8_t> into) override EXCLUDES(mutex_);

  protected:
    int hostOpen(const Location& at, int flags, mode_t mode) override EXCLUDES(mutex_);
    std::ptrdiff_t hostWrite(int descriptor, std::span<const std::uint8_t> content) override EXCLUDES(mutex_);
    int hostFlush(int descriptor) override EXCLUDES(mutex_);
    int hostTruncate(int descriptor, std::uint64_t size) override EXCLUDES(mutex_);
    int hostRename(const Location& from, const Location& to) override EXCLUDES(mutex_);
    int hostRemove(const Location& at) override EXCLUDES(mutex_);
    int hostMakeFolder(const Location& at, mode_t mode) override EXCLUDES(mutex_);
    int hostStatus(const std::string& path, struct stat& status) override EXCLUDES(mutex_);
    int hostLinkStatus(const Location& at, struct stat& status) override EXCLUDES(mutex_);
    DIR* hostOpenFolder(const std::string& path) override EXCLUDES(mutex_);

  private:
    struct File {
        // Counts the files, so that the seed's choices do not depend on their names.
        std::size_t number = 0;
        std::string now;
        std::string flushed;
    };
    using Names = std::map<std::string, std::shared_ptr<File>>;
    // A created name has no `from`, a removed one no `to`.
    struct NameChange {
        std::string from;
        std::string to;
        std::shared_ptr<File> file;
    };
    // A file, or the folder at the path.
    struct Opened {
        std::string path;
        std::shared_ptr<File> file;
        bool isDead = false;
    };

    static std::string plain(const std::filesystem::path& path);
    static void apply(const NameChange& change, Names& names);
    static std::string torn(const File& file, std::mt19937_64& random);

    bool isInside(const std::string& path) const;
    bool mayCall() REQUIRES(mutex_);
    bool mayRead(const std::string& path) EXCLUDES(mutex_);
    bool mayChange() REQUIRES(mutex_);
    Opened* openedBy(int descriptor) REQUIRES(mutex_);
    std::shared_ptr<File> fileAt(const std::string& path) REQUIRES(mutex_);
    void change(const NameChange& change) REQUIRES(mutex_);
    std::uint64_t room() const REQUIRES(mutex_);
    void takeOver() REQUIRES(mutex_);
    void losePower(std::uint64_t seed) REQUIRES(mutex_);

    const std::string folder_;
    Mutex mutex_;
    Names names_ GUARDED_BY(mutex_);
    Names flushedNames_ GUARDED_BY(mutex_);
    // In their order; those that are not in flushedNames_ yet.
    std::vector<NameChange> changes_ GUARDED_BY(mutex_);
    std::map<int, Opened> opened_ GUARDED_BY(mutex_);
    std::size_t files_ GUARDED_BY(mutex_) = 0;
    std::size_t operations_ GUARDED_BY(mutex_) = 0;
    std::optional<std::size_t> last_ GUARDED_BY(mutex_);
    bool isStopped_ GUARDED_BY(mutex_) = false;
    std::uint64_t capacity_ GUARDED_BY(mutex_) = std::numeric_limits<std::int64_t>::max();
    // The last member, because calls arrive as soon as it is constructed.
    const SwitchedFileSystem::Replacement replacement_{*this};
};

}  // namespace sentrova::testing
