// A Mac's system volume and an installation of the agent beside it, in one folder:
//
//     volume/   what the agent reads of a Mac; SENTROVA_SYSTEM_VOLUME names it
//     agent/    bin/ (the agent's working directory), conf/, logs/, logs/archive/, eventData/
//
// To begin with it is macOS 14.6.1, bound to the domain corp.example.com as mac-042, with an idle audit pipe, nobody's
// account and no configuration. Every function throws std::system_error or std::runtime_error, naming the file, when
// it cannot do its work.

#pragma once

#include "foundation/value/Value.h"

#include <chrono>
#include <filesystem>
#include <span>

namespace sentrova::testing {

// The content of a file; empty if it cannot be read.
std::string textOf(const std::filesystem::path& file);

class SystemVolume {
  public:
    // Creates the volume in a new temporary folder, which the destructor deletes.
    SystemVolume();
    // The same, with the temporary folder below the given one.
    struct TemporaryIn {
        std::filesystem::path folder;
    };
    explicit SystemVolume(const TemporaryIn& place);
    // Creates the volume in the given folder, which must be empty or absent and is kept.
    explicit SystemVolume(const std::filesystem::path& folder);
    ~SystemVolume();
    SystemVolume(const SystemVolume&) = delete;
    SystemVolume& operator=(const SystemVolume&) = delete;

    const std::filesystem::path& root() const { return root_; }
    std::filesystem::path volume() const { return root_ / "volume"; }
    std::filesystem::path auditFolder() const { return volume() / "var/audit"; }
    std::filesystem::path auditPipe() const { return volume() / "dev/auditpipe"; }
    std::filesystem::path console() const { return volume() / "dev/console"; }
    std::filesystem::path agent() const { return root_ / "agent"; }
    std::filesystem::path bin() const { return agent() / "bin"; }
    std::filesystem::path conf() const { return agent() / "conf"; }
    std::filesystem::path logs() const { return agent() / "logs"; }
    std::filesystem::path eventData() const { return agent() / "eventData"; }

    void setVersion(std::string_view productVersion);

    // The output and exit status of the Active Directory tool. Each run appends its arguments to the file ".runs" next
    // to it.
    void setDirectoryTool(std::string_view output, int exitStatus);
    // Makes the tool report the binding. The computer account is as in the directory, "mac-042$".
    void bindTo(std::string_view domain, std::string_view computerAccount);

    // Each attribute becomes a key of the user's file; each value is stored as an array of strings.
    void addUser(std::string_view name, const Dictionary& attributes) { addRecord("users", name, attributes); }
    void addGroup(std::string_view name, const Dictionary& attributes) { addRecord("groups", name, attributes); }
    // A local user, and a user with a domain account.
    void addLocalUser(std::string_view name, std::uint32_t uid);
    void addDomainUser(std::string_view name, std::uint32_t uid, std::string_view sid, std::string_view domain);

    void addTrail(std::string_view name, std::span<const std::uint8_t> bytes, std::chrono::seconds modifiedSinceEpoch);
    // Creates the link `current` to the trail that the system is still writing.
    void linkCurrentTrail(const std::string& name);

    // A property list in the configuration folder, by its full name.
    void writeConfiguration(std::string_view name, const Dictionary& content);
    Dictionary readConfiguration(std::string_view name) const;

  private:
    void create();
    void addRecord(const char* kind, std::string_view name, const Dictionary& attributes);

    std::filesystem::path root_;
    bool temporary_ = false;
};

}  // namespace sentrova::testing
