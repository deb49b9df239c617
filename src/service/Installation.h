// Checks of the folders of the agent's installation.

#pragma once

#include "foundation/files/FileSystem.h"

#include <string>

namespace sentrova {

// Each reports what it finds, and what it does, in the log. For one thread.
class Installation {
  public:
    // The file system must outlive the object.
    explicit Installation(FileSystem& files) : files_(files) {}

    // Says what keeps the folder from being used, and who else could change what is in the folder.
    void checkFolder(const std::string& folder);
    void makeMissingFolder(const std::string& folder);
    // A process that was killed while it wrote a file has left the unfinished one behind.
    void removeUnfinishedFiles(const std::string& folder);

  private:
    FileSystem& files_;
};

}  // namespace sentrova
