// The FileSystem of a POSIX host.

#pragma once

#include "foundation/files/FileSystem.h"
#include "foundation/run/Mutex.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace sentrova::platform {

// Each system call goes through a separate function, so that a test can make any single call fail. Safe from any
// thread.
class HostFileSystem : public FileSystem {
  public:
    HostFileSystem() = default;

    Result<FileStatus> status(const std::string& path) override;
    Result<FileStatus> linkStatus(const std::string& path) override;
    Result<FileDescriptor> openForReading(const std::string& path) override;
    Result<Data> read(const std::string& path) override;
    Result<std::string> readText(const std::string& path) override;
    Result<Done> writeAtomically(const std::string& path, std::span<const std::uint8_t> content,
                                 Durability durability) override;
    Result<Done> append(const std::string& path, std::string_view text) override EXCLUDES(appending_);
    Result<std::unique_ptr<OpenFile>> openForWriting(const std::string& path) override;
    Result<Done> flushFile(const std::string& path) override;
    Result<bool> endsWithLineFeed(const std::string& path) override;
    Result<Done> createFile(const std::string& path) override;
    Result<FileDescriptor> lock(const std::string& path, std::string_view content) override;
    Result<Done> createFolder(const std::string& path) override;
    Result<Done> restrictToOwner(const std::string& path) override;
    Result<Done> remove(const std::string& path) override;
    Result<Done> move(const std::string& from, const std::string& to) override;
    Result<std::vector<std::string>> names(const std::string& folder) override;
    Result<std::vector<std::string>> ownNames(const std::string& folder) override;
    Result<Done> checkOwnFolder(const std::string& folder) override;
    Result<Done> checkLinks(const std::string& path) override;
    bool isTemporaryName(std::string_view name) const override;
    std::ptrdiff_t readOnce(int descriptor, std::span<std::uint8_t> into) override;

  protected:
    // The argument of a system call: a name in an open folder, or a path (the folder is AT_FDCWD).
    struct Location {
        int folder = 0;
        std::string name;
        // The whole path, by which a test recognises the call.
        std::string path;
    };

    // One function per system call, without retries or clean-up, so that a test can make a single call fail. They
    // return what the host returns: -1 or null, with errno set, for a failure.
    virtual int hostOpen(const Location& at, int flags, mode_t mode);
    virtual std::ptrdiff_t hostWrite(int descriptor, std::span<const std::uint8_t> content);
    virtual int hostFlush(int descriptor);
    virtual int hostTruncate(int descriptor, std::uint64_t size);
    virtual int hostRename(const Location& from, const Location& to);
    virtual int hostRemove(const Location& at);
    virtual int hostMakeFolder(const Location& at, mode_t mode);
    virtual int hostStatus(const std::string& path, struct stat& status);
    // Does not follow a symbolic link.
    virtual int hostLinkStatus(const Location& at, struct stat& status);
    virtual DIR* hostOpenFolder(const std::string& path);

  private:
    class Writable;
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
    Result<FileDescriptor> openRegular(const Location& at, int flags, struct stat& host, const std::string& path);
    FileDescriptor open(const Location& at, int flags, mode_t mode = 0);
    int flush(int descriptor);
    int truncate(int descriptor, std::uint64_t size);
    Written writeWhole(int descriptor, std::span<const std::uint8_t> content);

    // Held during an append, so that removing a failed one cannot cut off another thread's text.
    Mutex appending_{LockRank::log};
};

}  // namespace sentrova::platform
