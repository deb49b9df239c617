// The files and folders of the host, behind one interface, so that a test can make any single call fail.
//
// Paths are bytes as the host takes them. What this creates is for its owner only, whatever the process's umask. A
// symbolic link in the place of a file, or of the folder it is in, is followed only by status, openForReading and
// names, which are for what belongs to the system; all others, which are for the agent's own, refuse it with ELOOP.
// Safe from any thread.

#pragma once

#include "foundation/FileDescriptor.h"
#include "foundation/Result.h"
#include "foundation/Value.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
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
    virtual Result<FileDescriptor> openForReading(const std::string& path);
    // A regular file's whole content, as bytes and as text; whether that is UTF-8 is not looked at.
    virtual Result<Data> read(const std::string& path);
    virtual Result<std::string> readText(const std::string& path);

    // Writes a temporary file beside the target and renames it, so that the path names either the old content or the
    // new one, whole. With `flush` it also survives a loss of power.
    enum class Durability { renamed, flushed };
    virtual Result<Done> writeAtomically(const std::string& path, std::span<const std::uint8_t> content,
                                         Durability durability);
    // Appends in one write; makes the file when there is none.
    virtual Result<Done> append(const std::string& path, std::string_view text);
    virtual Result<Done> createFile(const std::string& path);
    // Without its parent folders.
    virtual Result<Done> createFolder(const std::string& path);
    // Takes from all but its owner what they may do with a file that is there.
    virtual Result<Done> restrictToOwner(const std::string& path);
    // A folder is removed with everything in it, a symbolic link as the link it is.
    virtual Result<Done> remove(const std::string& path);
    // Fails when the destination exists. A symbolic link is moved as the link it is.
    virtual Result<Done> move(const std::string& from, const std::string& to);
    // The names in a folder, hidden ones included, in the order the host gives.
    virtual Result<std::vector<std::string>> names(const std::string& folder);

    // The same for a folder of the agent's own.
    Result<std::vector<std::string>> ownNames(const std::string& folder);
    // Fails when the path or the folder it is in is a symbolic link, or cannot be looked at; not when there is none.
    // For what is handed to other programs.
    Result<Done> checkNoLink(const std::string& path);

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

    static Location locationOf(const std::string& path);
    Result<Place> placeOf(const std::string& path, const char* what);
    bool isLink(const std::string& path);
    template <class Content>
    Result<Content> readWhole(const std::string& path);
    FileDescriptor open(const Location& at, int flags, mode_t mode = 0);
    int flush(int descriptor);
    int writeWhole(int descriptor, std::span<const std::uint8_t> content);
};

}  // namespace sentrova
