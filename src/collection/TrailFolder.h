// The audit trails of the system: the files of /var/audit.

#pragma once

#include "foundation/files/FileSystem.h"
#include "foundation/value/Date.h"
#include "foundation/value/Result.h"

#include <cstdint>
#include <string>
#include <vector>

namespace sentrova {

// A trail as it was listed.
struct Trail {
    std::string name;
    // The volume and the file's number on it.
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint64_t size = 0;
    Date modified;
    // The system is still writing the trail.
    bool isOpen = false;

    // In the Mac's form, for the log and for opening.
    std::string path() const;

    friend bool operator==(const Trail&, const Trail&) = default;
};

// Safe from any thread.
class TrailFolder {
  public:
    static constexpr const char* kPath = "/var/audit";

    // The file system must outlive the object.
    explicit TrailFolder(FileSystem& files) : files_(files) {}

    // The regular files, each once even if it has several names, oldest modification first, then by name. Without the
    // link `current`, which names the trail that is being written a second time, and without links that lead nowhere. A
    // rename while the folder is read may hide a file.
    Result<std::vector<Trail>> trails();

    // Whether the system is writing a trail: a name ends in ".not_terminated", or there is a link `current`.
    bool isWritten();

  private:
    FileSystem& files_;
};

}  // namespace sentrova
