// The files and folders of the host, behind one interface, so that a test can make any single call fail.
//
// Paths are bytes as the host takes them. What this creates is for its owner only, whatever the process's umask. Safe
// from any thread.
//
// Symbolic links: status, openForReading and names are for what belongs to the system and follow every link. All other
// calls are for the agent's own files. They follow a link in the place of a file, or of the folder it is in, only when
// the process's user owns the link and is the only one who can write to the folder that holds it; nobody else can have
// made such a link. Any other link fails with ELOOP. The folders further up the path are followed as the host does.

#pragma once

#include "foundation/FileDescriptor.h"
#include "foundation/Mutex.h"
#include "foundation/Result.h"
#include "foundation/Value.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova {

struct FileStatus {
    std::uint64_t size = 0;
    // What the content takes up on the volume.
    std::uint64_t allocatedSize = 0;
    Date modificationDate;
    uid_t owner = 0;
    gid_t group = 0;
    mode_t permissions = 0;
    bool isFolder = false;
    bool isRegular = false;
    bool isSymbolicLink = false;
    // Tells a file from another that took its name.
    std::uint64_t identity = 0;
};

// What a call that has no other result answers when it succeeded.
struct Done {};

class FileSystem {
  public:
    // Files the agent reads whole are configuration and spool; nothing of its own comes near this.
    static constexpr std::size_t kMaximumRead = 256 * 1024 * 1024;

    virtual ~FileSystem() = default;

    static FileSystem& shared();
    // Puts another file system in the host's place (null: the host's again), kept alive by the caller.
    static void install(FileSystem* fileSystem);

    // The status of what the path names, symbolic links followed; linkStatus is that of the link itself.
    virtual Result<FileStatus> status(const std::string& path);
    virtual Result<FileStatus> linkStatus(const std::string& path);
    // Never waits, and fails for anything but a regular file.
    virtual Result<FileDescriptor> openForReading(const std::string& path);
    // A regular file's whole content, as bytes and as text; whether that is UTF-8 is not looked at.
    virtual Result<Data> read(const std::string& path);
    virtual Result<std::string> readText(const std::string& path);

    // Writes a temporary file beside the target and renames it, so that the path names either the old content or the
    // new one, whole. With `flushed` it also survives a loss of power. Of a link that is followed the target is
    // replaced; any other link in the file's place is replaced itself.
    enum class Durability { renamed, flushed };
    virtual Result<Done> writeAtomically(const std::string& path, std::span<const std::uint8_t> content,
                                         Durability durability);
    // Appends in one write; makes the file when there is none. A failed append takes back what it wrote, unless the
    // host refuses that as well.
    virtual Result<Done> append(const std::string& path, std::string_view text) EXCLUDES(appending_);
    // Whether the file's last byte is a line feed; also true for a missing or empty file.
    virtual Result<bool> endsWithLineFeed(const std::string& path);
    virtual Result<Done> createFile(const std::string& path);
    // Locks a file, which is made when there is none, until the descriptor is closed or the process ends, however it
    // ends. Fails with EWOULDBLOCK while the file is locked by anybody else. The content, which it is given then, only
    // tells who holds the lock: a full disk may leave the file empty.
    virtual Result<FileDescriptor> lock(const std::string& path, std::string_view content);
    // Without its parent folders.
    virtual Result<Done> createFolder(const std::string& path);
    // Takes from all but its owner what they may do with a file that is there.
    virtual Result<Done> restrictToOwner(const std::string& path);
    // A folder is removed with everything in it, a symbolic link as the link it is.
    virtual Result<Done> remove(const std::string& path);
    // Fails when the destination exists. A symbolic link is moved as the link it is. To another volume a regular file
    // is copied under a temporary name, flushed, renamed and then removed here, with its modification date kept; when
    // any of that fails, the file is where it was and nothing is at the destination.
    virtual Result<Done> move(const std::string& from, const std::string& to);
    // The names in a folder, hidden ones included, in the order the host gives.
    virtual Result<std::vector<std::string>> names(const std::string& folder);

    // The same for a folder of the agent's own.
    Result<std::vector<std::string>> ownNames(const std::string& folder);
    // Fails when there is no such folder, or a link in its place that is not followed.
    Result<Done> checkOwnFolder(const std::string& folder);
    // Fails when the path, or the folder it is in, is a symbolic link that is not followed; not when there is nothing.
    // For paths that are handed to other programs, which follow every link.
    Result<Done> checkLinks(const std::string& path);

    // One read of the host, from a file opened for it: how many bytes it gave, or -1 and errno. Neither repeats an
    // interrupted call nor fills up a short one.
    virtual std::ptrdiff_t readOnce(int descriptor, std::span<std::uint8_t> into);

    bool exists(const std::string& path) { return static_cast<bool>(status(path)); }

    // Whether the name is that of a temporary file of writeAtomically, left behind by a process that was killed.
    static bool isTemporaryName(std::string_view name);

  protected:
    // What a call of the host is made on: a name in a folder that is open, or a path (folder AT_FDCWD).
    struct Location {
        int folder = 0;
        std::string name;
        // The whole path, for a test to tell one call from another.
        std::string path;
    };

    // The host's other calls, one each, below everything that repeats them or cleans up after them: here a test makes a
    // single one fail. They answer as the host does, -1 or null with errno for a failure.
    virtual int hostOpen(const Location& at, int flags, mode_t mode);
    virtual std::ptrdiff_t hostWrite(int descriptor, std::span<const std::uint8_t> content);
    virtual int hostFlush(int descriptor);
    virtual int hostRename(const Location& from, const Location& to);
    virtual int hostRemove(const Location& at);
    virtual int hostMakeFolder(const Location& at, mode_t mode);
    virtual int hostStatus(const std::string& path, struct stat& status);
    // Of a symbolic link itself.
    virtual int hostLinkStatus(const Location& at, struct stat& status);
    virtual DIR* hostOpenFolder(const std::string& path);

  private:
    struct Place;
    struct Written;

    static Location locationOf(const std::string& path);
    Result<Place> placeOf(const std::string& path, const char* what);
    Result<Place> targetPlaceOf(const std::string& path, const char* what);
    Result<FileDescriptor> openOwnFolder(std::string folder, const char* what, const std::string& forPath);
    std::optional<std::string> targetOf(const Location& link);
    bool isLink(const std::string& path);
    Result<Done> putInPlace(const Place& place, Durability durability, const std::function<int(int descriptor)>& fill);
    Result<Done> moveToOtherVolume(const Place& from, const Place& to);
    int copyContent(int from, int to);
    template <class Content>
    Result<Content> readWhole(const std::string& path);
    FileDescriptor open(const Location& at, int flags, mode_t mode = 0);
    int flush(int descriptor);
    Written writeWhole(int descriptor, std::span<const std::uint8_t> content);

    // Held over an append, so that taking back a failed one cannot cut another thread's text.
    Mutex appending_{LockRank::log};
};

}  // namespace sentrova
