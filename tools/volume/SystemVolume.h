// A Mac's system volume and an installation of the agent beside it, in a folder of their own:
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

// The content of a file; empty when there is none.
std::string textOf(const std::filesystem::path& file);

class SystemVolume {
  public:
    // In a new temporary folder, which goes away with the object.
    SystemVolume();
    // The same below that folder.
    struct TemporaryIn {
        std::filesystem::path folder;
    };
    explicit SystemVolume(const TemporaryIn& place);
    // In the given folder, which must be empty or absent; it stays.
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

    // What the Active Directory tool prints and how it exits. It adds its arguments to a file beside it, ".runs".
    void setDirectoryTool(std::string_view output, int exitStatus);
    // Makes the tool answer with the binding; the computer account as the directory has it, "mac-042$".
    void bindTo(std::string_view domain, std::string_view computerAccount);

    // The attributes are the file's keys; every value is stored as an array of strings.
    void addUser(std::string_view name, const Dictionary& attributes) { addRecord("users", name, attributes); }
    void addGroup(std::string_view name, const Dictionary& attributes) { addRecord("groups", name, attributes); }
    // A user that only this Mac knows, and one whose account is a domain's.
    void addLocalUser(std::string_view name, std::uint32_t uid);
    void addDomainUser(std::string_view name, std::uint32_t uid, std::string_view sid, std::string_view domain);

    void addTrail(std::string_view name, std::span<const std::uint8_t> bytes, std::chrono::seconds modifiedSinceEpoch);

    // A property list of the configuration folder, by its whole name.
    void writeConfiguration(std::string_view name, const Dictionary& content);
    Dictionary readConfiguration(std::string_view name) const;

  private:
    void create();
    void addRecord(const char* kind, std::string_view name, const Dictionary& attributes);

    std::filesystem::path root_;
    bool temporary_ = false;
};

}  // namespace sentrova::testing
