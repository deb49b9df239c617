// A Mac's system volume with an installation of the agent, at the sizes that benchmarks need.

#pragma once

#include "support/SystemVolume.h"

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova::bench {

// In a temporary folder that goes away with the object. Eight people of a domain are in its directory, nobody else.
class BenchVolume {
  public:
    struct Configuration {
        // Of the server on loopback.
        int port = 9;
        int eventsPerRequest = 500;
        int logLevel = 0;
        bool realtime = false;
        std::filesystem::path folder = std::filesystem::temp_directory_path();
    };
    explicit BenchVolume(const Configuration& configuration);

    const testing::SystemVolume& files() const { return volume_; }

    // Which of a trail's records are of a configured type.
    enum class Selected { none, fiveInHundred, all };

    // Whether the directory knows the ids of the selected records.
    enum class Ids { known, halfUnknown };

    // A closed trail of that many records; its path.
    std::filesystem::path addTrail(std::string_view name, std::size_t records, Selected selected, Ids ids = Ids::known);

    // People of the domain, beside the eight, with ids from firstUserId on.
    static constexpr std::uint32_t kFirstUserId = 100'000;
    void addUsers(std::size_t count);

    // Makes this the surroundings of the process's own agent parts, fresh as after a first start.
    void enter();

  private:
    void writeOwnConfiguration();

    const int logLevel_;
    testing::SystemVolume volume_;
};

// What the configuration selects.
std::vector<std::string> eventsToRead();

// Bytes of a file or of a pseudo-file of the host; empty when it cannot be read.
std::string contentOf(const std::filesystem::path& path);

}  // namespace sentrova::bench
