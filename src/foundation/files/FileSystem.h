// The files and folders of the host, behind one interface.
//
// Paths are bytes as the host takes them. What this creates is for its owner only, whatever the process's umask. Safe
// from any thread.
//
// Symbolic links: status, openForReading and names are for what belongs to the system and follow every link. All other
// calls are for the agent's own files. They follow a link in the place of a file, or of the folder it is in, only when
// the process's user owns the link and is the only one who can write to the folder that holds it; nobody else can have
// made such a link. Any other link fails with ELOOP. The folders further up the path are followed as the host does.

#pragma once

#include "foundation/files/FileDescriptor.h"
#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

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

    // The status of what the path names, symbolic links followed; linkStatus is that of the link itself.
    virtual Result<FileStatus> status(const std::string& path) = 0;
    virtual Result<FileStatus> linkStatus(const std::string& path) = 0;
    // Never waits, and fails for anything but a regular file.
    virtual Result<FileDescriptor> openForReading(const std::string& path) = 0;
    // A regular file's whole content, as bytes and as text; whether that is UTF-8 is not looked at.
    virtual Result<Data> read(const std::string& path) = 0;
    virtual Result<std::string> readText(const std::string& path) = 0;

    // Writes a temporary file beside the target and renames it, so that the path names either the old content or the
    // new one, whole. With `flushed` it also survives a loss of power. Of a link that is followed the target is
    // replaced; any other link in the file's place is replaced itself.
    enum class Durability { renamed, flushed };
    virtual Result<Done> writeAtomically(const std::string& path, std::span<const std::uint8_t> content,
                                         Durability durability) = 0;
    // Appends in one write; makes the file when there is none. A failed append takes back what it wrote, unless the
    // host refuses that as well.
    virtual Result<Done> append(const std::string& path, std::string_view text) = 0;
    // Whether the file's last byte is a line feed; also true for a missing or empty file.
    virtual Result<bool> endsWithLineFeed(const std::string& path) = 0;
    virtual Result<Done> createFile(const std::string& path) = 0;
    // Locks a file, which is made when there is none, until the descriptor is closed or the process ends, however it
    // ends. Fails with EWOULDBLOCK while the file is locked by anybody else. The content, which it is given then, only
    // tells who holds the lock: a full disk may leave the file empty.
    virtual Result<FileDescriptor> lock(const std::string& path, std::string_view content) = 0;
    // Without its parent folders.
    virtual Result<Done> createFolder(const std::string& path) = 0;
    // Removes group and other permissions from an existing file.
    virtual Result<Done> restrictToOwner(const std::string& path) = 0;
    // A folder is removed with everything in it, a symbolic link as the link it is.
    virtual Result<Done> remove(const std::string& path) = 0;
    // Fails when the destination exists. A symbolic link is moved as the link it is. To another volume a regular file
    // is copied under a temporary name, flushed, renamed and then removed here, with its modification date kept; when
    // any of that fails, the file is where it was and nothing is at the destination.
    virtual Result<Done> move(const std::string& from, const std::string& to) = 0;
    // The names in a folder, hidden ones included, in the order the host gives.
    virtual Result<std::vector<std::string>> names(const std::string& folder) = 0;

    // The same for a folder of the agent's own.
    virtual Result<std::vector<std::string>> ownNames(const std::string& folder) = 0;
    // Fails when there is no such folder, or a link in its place that is not followed.
    virtual Result<Done> checkOwnFolder(const std::string& folder) = 0;
    // Fails when the path, or the folder it is in, is a symbolic link that is not followed; not when there is nothing.
    // For paths that are handed to other programs, which follow every link.
    virtual Result<Done> checkLinks(const std::string& path) = 0;

    // One read of the host, from a file opened for it: how many bytes it gave, or -1 and errno. Neither repeats an
    // interrupted call nor fills up a short one.
    virtual std::ptrdiff_t readOnce(int descriptor, std::span<std::uint8_t> into) = 0;

    bool exists(const std::string& path) { return static_cast<bool>(status(path)); }

    // Whether the name is that of a temporary file of writeAtomically, left behind by a process that was killed.
    virtual bool isTemporaryName(std::string_view name) const = 0;

  protected:
    FileSystem() = default;
    FileSystem(const FileSystem&) = default;
    FileSystem& operator=(const FileSystem&) = default;
};

}  // namespace sentrova
