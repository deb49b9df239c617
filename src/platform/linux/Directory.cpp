#include "platform/Directory.h"

#include "platform/AccountDatabase.h"
#include "platform/linux/SystemVolume.h"
#include "platform/volume/VolumeDirectory.h"

namespace sentrova::platform {

namespace {

// Looks in the system volume's local node first, then in the host's own databases.
class HostDirectory final : public Directory {
  public:
    HostDirectory(FileSystem& files, Clock& clock) : volume_(files, clock, systemVolume) {}

    std::optional<std::string> userName(std::uint32_t id) override {
        if (auto name = volume_.userName(id)) {
            return name;
        }
        return databaseUserName(id);
    }

    std::optional<std::string> groupName(std::uint32_t id) override {
        if (auto name = volume_.groupName(id)) {
            return name;
        }
        return databaseGroupName(id);
    }

    Result<std::vector<DirectoryRecord>> usersNamed(const std::string& name) override {
        return volume_.usersNamed(name);
    }

  private:
    VolumeDirectory volume_;
};

}  // namespace

std::unique_ptr<Directory> Directory::make(FileSystem& files, Clock& clock) {
    return std::make_unique<HostDirectory>(files, clock);
}

}  // namespace sentrova::platform
