// Files and folders in memory, so that an input costs no disk; and a guard on where the agent writes.

#pragma once

#include "foundation/FileSystem.h"
#include "foundation/Mutex.h"

#include <map>

namespace sentrova::testing {

// Installs itself for its lifetime. There are no links. A change to anything outside the writable folder is a finding.
class MemoryFileSystem final : public FileSystem {
  public:
    // Begins with what is on the disk below the root.
    MemoryFileSystem(const std::string& root, std::string writableFolder);
    ~MemoryFileSystem() override { install(nullptr); }

    // Everything as it was in the beginning, dated now.
    void reset() EXCLUDES(mutex_);
    // Puts a file anywhere, dated now.
    void put(const std::string& path, std::span<const std::uint8_t> content) EXCLUDES(mutex_);
    // A folder's files by their names.
    std::map<std::string, Data> files(const std::string& folder);

    Result<FileStatus> status(const std::string& path) override EXCLUDES(mutex_);
    Result<FileStatus> linkStatus(const std::string& path) override { return status(path); }
    Result<FileDescriptor> openForReading(const std::string& path) override;
    Result<Data> read(const std::string& path) override EXCLUDES(mutex_);
    Result<std::string> readText(const std::string& path) override;
    Result<Done> writeAtomically(const std::string& path, std::span<const std::uint8_t> content, Durability) override;
    Result<Done> append(const std::string& path, std::string_view text) override EXCLUDES(mutex_);
    Result<Done> createFile(const std::string& path) override { return add(path, false); }
    Result<Done> createFolder(const std::string& path) override { return add(path, true); }
    Result<Done> restrictToOwner(const std::string& path) override;
    Result<Done> remove(const std::string& path) override EXCLUDES(mutex_);
    Result<Done> move(const std::string& from, const std::string& to) override EXCLUDES(mutex_);
    Result<std::vector<std::string>> names(const std::string& folder) override EXCLUDES(mutex_);

  private:
    struct Entry {
        FileStatus status;
        Data content;
    };

    // The one name of what a path leads to.
    std::string resolved(const std::string& path) const;
    std::string writable(const std::string& path) const;
    Result<Done> add(const std::string& path, bool isFolder) EXCLUDES(mutex_);
    Entry made(bool isFolder, std::span<const std::uint8_t> content = {}) REQUIRES(mutex_);

    const std::string current_;
    const std::string writableFolder_;
    std::map<std::string, Entry> original_;

    Mutex mutex_;
    std::map<std::string, Entry> entries_ GUARDED_BY(mutex_);
    std::uint64_t lastIdentity_ GUARDED_BY(mutex_) = 0;
};

}  // namespace sentrova::testing
