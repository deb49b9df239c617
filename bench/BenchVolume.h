// A Mac's system volume with an installation of the agent, at the sizes that benchmarks need.

#pragma once

#include "foundation/files/FileDescriptor.h"
#include "foundation/net/UrlSession.h"
#include "platform/RealHost.h"
#include "service/Agent.h"
#include "volume/SystemVolume.h"

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova::bench {

// Lives in a temporary folder that the destructor deletes. Its directory service knows eight users of a domain.
class BenchVolume {
  public:
    struct Configuration {
        // Port of the server on loopback.
        int port = 9;
        int eventsPerRequest = 500;
        int logLevel = 0;
        bool realtime = false;
        bool durable = false;
        std::filesystem::path folder = std::filesystem::temp_directory_path();
    };
    explicit BenchVolume(const Configuration& configuration);
    ~BenchVolume() { leave(); }
    BenchVolume(const BenchVolume&) = delete;
    BenchVolume& operator=(const BenchVolume&) = delete;

    const testing::SystemVolume& files() const { return volume_; }

    // Which records of a trail have a configured event type.
    enum class Selected { none, fiveInHundred, all };

    // Whether the directory service knows the ids in the selected records.
    enum class Ids { known, halfUnknown };

    // Writes a closed trail of that many records and returns its path. Throws std::runtime_error if that fails.
    std::filesystem::path addTrail(std::string_view name, std::size_t records, Selected selected, Ids ids = Ids::known);

    // Adds users of the domain to the eight, with ids from kFirstUserId on.
    static constexpr std::uint32_t kFirstUserId = 100'000;
    void addUsers(std::size_t count);

    // Creates an agent in this process that uses this volume, with the state of a first start. Replaces the agent of
    // any other volume.
    void enter();
    // Destroys the agent if it belongs to this volume.
    void leave();
    // Agents created from now on use this session, which must outlive them.
    void useSession(UrlSession& session) { session_ = &session; }

  private:
    void writeOwnConfiguration();

    static inline BenchVolume* entered_ = nullptr;

    const int logLevel_;
    const bool durable_;
    testing::SystemVolume volume_;
    platform::RealHost host_;
    UrlSession* session_ = nullptr;
    std::optional<Agent> agent_;
};

// The trail that the system is writing, and the audit device. The constructor begins the trail.
class LiveTrail {
  public:
    explicit LiveTrail(const testing::SystemVolume& volume);

    // Writes a record of the present second with a configured event type: like the kernel, first to the trail and then
    // to the device. Throws std::runtime_error if the device is full.
    void writeSelected();

  private:
    std::ofstream trail_;
    FileDescriptor device_;
    std::size_t records_ = 0;
};

// The event names that the configuration selects.
std::vector<std::string> eventsToRead();

// The content of a file, also of one in /proc; empty if the file cannot be read.
std::string contentOf(const std::filesystem::path& path);

}  // namespace sentrova::bench
