// The users and groups in the files of a Mac's local directory node, on a volume in any folder.

#pragma once

#include "foundation/files/FileSystem.h"
#include "foundation/run/Clock.h"
#include "platform/Directory.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sentrova::platform {

// Knows only what the volume holds. Runs no program, and reads nothing else of this host.
class VolumeDirectory final : public Directory {
  public:
    // The folder that holds the volume, without a trailing slash. Asked at each look-up.
    using Folder = std::function<std::string()>;

    // The file system and the clock must outlive the directory.
    VolumeDirectory(FileSystem& files, Clock& clock, Folder volume);
    ~VolumeDirectory() override;
    VolumeDirectory(const VolumeDirectory&) = delete;
    VolumeDirectory& operator=(const VolumeDirectory&) = delete;

    std::optional<std::string> userName(std::uint32_t id) override;
    std::optional<std::string> groupName(std::uint32_t id) override;
    Result<std::vector<DirectoryRecord>> usersNamed(const std::string& name) override;

  private:
    class NodeFolder;
    class MissingFiles;

    FileSystem& files_;
    Clock& clock_;
    const Folder volume_;
    const std::unique_ptr<MissingFiles> missing_;
    const std::unique_ptr<NodeFolder> users_;
    const std::unique_ptr<NodeFolder> groups_;
};

}  // namespace sentrova::platform
