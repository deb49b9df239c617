// The host's files, with a guard on writes, and file times that follow the test's clock.

#pragma once

#include "foundation/run/Clock.h"
#include "foundation/run/Current.h"
#include "fuzz/Fuzz.h"
#include "platform/posix/HostFileSystem.h"
#include "support/SwitchedFileSystem.h"

#include <fcntl.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <span>
#include <string>
#include <utility>

namespace sentrova::testing {

// Replaces the fixture's file system for its lifetime. A change outside the folder (an absolute path) is a finding.
// Every file counts as modified just now.
class GuardedFileSystem final : public platform::HostFileSystem {
  public:
    explicit GuardedFileSystem(std::filesystem::path folder)
        : folder_(std::move(folder)), original_(folder_.string() + ".original") {
        std::filesystem::copy(folder_, original_, std::filesystem::copy_options::recursive);
    }

    // Restores the folder, except bin/, the agent's working directory.
    void reset() {
        for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
            if (entry.path().filename() != "bin") {
                std::filesystem::remove_all(entry);
            }
        }
        constexpr auto kOptions =
            std::filesystem::copy_options::recursive | std::filesystem::copy_options::skip_existing;
        std::filesystem::copy(original_, folder_, kOptions);
    }
    // Writes a file anywhere. Returns false if the host refuses the name.
    static bool put(const std::string& path, std::span<const std::uint8_t> content) {
        return static_cast<bool>(
            std::ofstream(path, std::ios::binary).write(asText(content).data(), std::ssize(content)));
    }
    // The files of a folder, by name.
    std::map<std::string, Data> files(const std::string& folder) {
        std::map<std::string, Data> found;
        for (const auto& name : names(folder).optional().value_or(std::vector<std::string>())) {
            if (auto content = read(folder + "/" + name)) {
                found.emplace(name, *std::move(content));
            }
        }
        return found;
    }

  protected:
    int hostOpen(const Location& at, int flags, mode_t mode) override {
        const bool onlyReads = (flags & (O_ACCMODE | O_CREAT)) == O_RDONLY;
        return HostFileSystem::hostOpen(onlyReads ? at : inside(at), flags, mode);
    }
    // Flushing is not tested here, and would be slow.
    int hostFlush(int /*descriptor*/) override { return 0; }
    int hostRename(const Location& from, const Location& to) override {
        return HostFileSystem::hostRename(inside(from), inside(to));
    }
    int hostRemove(const Location& at) override { return HostFileSystem::hostRemove(inside(at)); }
    int hostMakeFolder(const Location& at, mode_t mode) override {
        return HostFileSystem::hostMakeFolder(inside(at), mode);
    }
    int hostStatus(const std::string& path, struct stat& status) override {
        return dated(HostFileSystem::hostStatus(path, status), status);
    }
    int hostLinkStatus(const Location& at, struct stat& status) override {
        return dated(HostFileSystem::hostLinkStatus(at, status), status);
    }

  private:
    // Returns the location, which must be in the agent's folder.
    const Location& inside(const Location& at) const {
        const auto path = std::filesystem::absolute(at.path).lexically_normal().string();
        require(path.starts_with(folder_.string() + "/"), "nothing is written outside the agent's folder", path);
        return at;
    }
    static int dated(int result, struct stat& status) {
        status.st_mtim = {static_cast<time_t>(epochSeconds(Current<Clock>::get().wallTime())), 0};
        return result;
    }

    const std::filesystem::path folder_;
    const std::filesystem::path original_;
    const SwitchedFileSystem::Replacement replacement_{*this};
};

}  // namespace sentrova::testing
