// The host's files and folders, behind one interface.
//
// Paths are bytes in the host's form. Only the owner has permissions on new files and folders, whatever the process's
// umask. A failure is returned as an Error with an errno value. Safe from any thread.
//
// Symbolic links: status, openForReading and names are for files of the system and follow every link. All other calls
// are for the agent's own files. They follow a link (the file itself, or the folder it is in) only if the process's
// user owns the link and nobody else can write to the folder that holds it. Nobody else can have created such a link.
// Any other link fails with ELOOP. Links further up the path are followed as the host does.

#pragma once

#include "foundation/files/FileDescriptor.h"
#include "foundation/files/OpenFile.h"
#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova {

struct FileStatus {
    std::uint64_t size = 0;
    // In bytes, on the volume.
    std::uint64_t allocatedSize = 0;
    Date modificationDate;
    uid_t owner = 0;
    gid_t group = 0;
    mode_t permissions = 0;
    bool isFolder = false;
    bool isRegular = false;
    bool isSymbolicLink = false;
    // The inode number: differs from that of another file that later gets the same name.
    std::uint64_t identity = 0;
    // The number of the volume. Some hosts number their volumes anew at each start of the system.
    std::uint64_t device = 0;
};

class FileSystem {
  public:
    // The largest file that read and readText accept, in bytes. Configuration and spool files are far smaller.
    static constexpr std::size_t kMaximumRead = 256 * 1024 * 1024;

    virtual ~FileSystem() = default;

    // `status` follows symbolic links; `linkStatus` gives the status of the link itself.
    virtual Result<FileStatus> status(const std::string& path) = 0;
    virtual Result<FileStatus> linkStatus(const std::string& path) = 0;
    // Fails for anything but a regular file. Never blocks on a FIFO.
    virtual Result<FileDescriptor> openForReading(const std::string& path) = 0;
    // The whole content of a regular file, as bytes or as text. The text is not checked for UTF-8.
    virtual Result<Data> read(const std::string& path) = 0;
    virtual Result<std::string> readText(const std::string& path) = 0;

    // Writes a temporary file beside the target and renames it. So the path always names a complete file, the old one
    // or the new one. With `flushed` the new content also survives a power loss. If the path is a link that is
    // followed, the link's target is replaced; any other link is itself replaced.
    enum class Durability { renamed, flushed };
    virtual Result<Done> writeAtomically(const std::string& path, std::span<const std::uint8_t> content,
                                         Durability durability) = 0;
    // Appends in one write and creates a missing file. A failed append removes the part that it wrote, unless the host
    // refuses that too.
    virtual Result<Done> append(const std::string& path, std::string_view text) = 0;
    // Opens a regular file for writing, keeps its content, and creates a missing file. Never null.
    virtual Result<std::unique_ptr<OpenFile>> openForWriting(const std::string& path) = 0;
    // Makes the content and the name of an existing regular file survive a power loss. Flushing the file's folder also
    // makes all earlier changes of names in that folder survive.
    virtual Result<Done> flushFile(const std::string& path) = 0;
    // Whether the last byte of the file is a line feed. True for a missing or empty file.
    virtual Result<bool> endsWithLineFeed(const std::string& path) = 0;
    virtual Result<Done> createFile(const std::string& path) = 0;
    // Locks the file, creating a missing one, until the descriptor is closed or the process ends in any way. Fails with
    // EWOULDBLOCK while somebody else holds the lock. Then writes the content, which tells people who holds the lock. A
    // full disk may leave the file empty; the lock holds all the same.
    virtual Result<FileDescriptor> lock(const std::string& path, std::string_view content) = 0;
    // Does not create parent folders.
    virtual Result<Done> createFolder(const std::string& path) = 0;
    // Removes group and other permissions from an existing file.
    virtual Result<Done> restrictToOwner(const std::string& path) = 0;
    // Removes a folder with all its content. Removes a symbolic link and not its target.
    virtual Result<Done> remove(const std::string& path) = 0;
    // Fails if the destination exists. Moves a symbolic link and not its target. Across volumes only a regular file can
    // be moved: it is copied to a temporary name, flushed, renamed, and then removed at the source. The modification
    // date is kept. If a step fails, the file stays where it was and the destination does not exist.
    virtual Result<Done> move(const std::string& from, const std::string& to) = 0;
    // The names in a folder, hidden ones included, in the host's order.
    virtual Result<std::vector<std::string>> names(const std::string& folder) = 0;

    // The same for one of the agent's own folders.
    virtual Result<std::vector<std::string>> ownNames(const std::string& folder) = 0;
    // Fails if the folder is missing or is a link that is not followed.
    virtual Result<Done> checkOwnFolder(const std::string& folder) = 0;
    // Fails if the path, or the folder it is in, is a symbolic link that is not followed. Succeeds for a missing file.
    // Check with it any path that is passed to another program, because other programs follow every link.
    virtual Result<Done> checkLinks(const std::string& path) = 0;

    // Calls the host's read once. Returns the number of bytes, 0 at the end of the file, or -1 with errno set. The
    // caller handles EINTR and short reads.
    virtual std::ptrdiff_t readOnce(int descriptor, std::span<std::uint8_t> into) = 0;

    bool exists(const std::string& path) { return static_cast<bool>(status(path)); }

    // Whether the name is that of a temporary file of writeAtomically or move. A killed process leaves such files
    // behind.
    virtual bool isTemporaryName(std::string_view name) const = 0;

  protected:
    FileSystem() = default;
    FileSystem(const FileSystem&) = default;
    FileSystem& operator=(const FileSystem&) = default;
};

}  // namespace sentrova
