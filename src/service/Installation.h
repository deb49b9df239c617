// Checks the folders of the agent's installation.

#pragma once

#include "foundation/files/FileSystem.h"

#include <string>

namespace sentrova {

// Each function logs its findings and changes. Not thread-safe.
class Installation {
  public:
    // The file system must outlive the object.
    explicit Installation(FileSystem& files) : files_(files) {}

    // Logs why the folder cannot be used, and whether other users can change its content.
    void checkFolder(const std::string& folder);
    // Creates the folder if it does not exist.
    void makeMissingFolder(const std::string& folder);
    // Removes the unfinished files of a process that was killed during a write.
    void removeUnfinishedFiles(const std::string& folder);

  private:
    FileSystem& files_;
};

}  // namespace sentrova
