#include "volume/SystemVolume.h"

#include "foundation/formats/PropertyList.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>

#include <fmt/format.h>

namespace sentrova::testing {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void failed(const fs::path& path) {
    throw std::system_error(errno, std::generic_category(), path.string());
}

void writeFile(const fs::path& path, std::string_view content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
    out.close();
    if (!out) {
        failed(path);
    }
}

std::string xml(const Dictionary& content) {
    const auto bytes = PropertyList::writeXml(content);
    if (!bytes) {
        throw std::runtime_error(bytes.error().description);
    }
    return {bytes->begin(), bytes->end()};
}

fs::path temporaryFolder(const fs::path& below) {
    auto name = (below / "sentrova-volume-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        failed(name);
    }
    return name;
}

}  // namespace

std::string textOf(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

SystemVolume::SystemVolume() : SystemVolume(TemporaryIn{fs::temp_directory_path()}) {}

SystemVolume::SystemVolume(const TemporaryIn& place) : root_(temporaryFolder(place.folder)), temporary_(true) {
    create();
}

SystemVolume::SystemVolume(const fs::path& folder) : root_(fs::absolute(folder)) {
    if (fs::exists(root_) && !(fs::is_directory(root_) && fs::is_empty(root_))) {
        throw std::runtime_error(folder.string() + " is there already and is not an empty folder");
    }
    create();
}

SystemVolume::~SystemVolume() {
    if (temporary_) {
        std::error_code ignored;
        fs::remove_all(root_, ignored);
    }
}

void SystemVolume::create() {
    for (const auto* folder : {"System/Library/CoreServices", "var/audit", "dev", "usr/sbin",
                               "var/db/dslocal/nodes/Default/users", "var/db/dslocal/nodes/Default/groups"}) {
        fs::create_directories(volume() / folder);
    }
    for (const auto& folder : {bin(), conf(), logs() / "archive", eventData()}) {
        fs::create_directories(folder);
    }
    if (::mkfifo(auditPipe().c_str(), S_IRUSR | S_IWUSR) != 0) {
        failed(auditPipe());
    }
    writeFile(console(), "");
    setVersion("14.6.1");
    bindTo("corp.example.com", "mac-042$");
}

void SystemVolume::setVersion(std::string_view productVersion) {
    writeFile(volume() / "System/Library/CoreServices/SystemVersion.plist",
              xml({{"ProductBuildVersion", "23G93"}, {"ProductName", "macOS"}, {"ProductVersion", productVersion}}));
}

void SystemVolume::setDirectoryTool(std::string_view output, int exitStatus) {
    const auto tool = volume() / "usr/sbin/dsconfigad";
    writeFile(tool,
              fmt::format("#!/bin/sh\necho \"$@\" >> \"$0.runs\"\ncat <<'END_OF_OUTPUT'\n{}\nEND_OF_OUTPUT\nexit {}\n",
                          output, exitStatus));
    fs::permissions(tool, fs::perms::owner_all | fs::perms::group_exec | fs::perms::group_read);
}

void SystemVolume::bindTo(std::string_view domain, std::string_view computerAccount) {
    const Dictionary general = {{"Active Directory Domain", domain}, {"Computer Account", computerAccount}};
    setDirectoryTool(xml({{"General Info", general}}), 0);
}

void SystemVolume::addRecord(const char* kind, std::string_view name, const Dictionary& attributes) {
    Dictionary record;
    for (const auto& [key, value] : attributes) {
        record.set(key, value.array() ? value : Array{value.description()});
    }
    writeFile(volume() / "var/db/dslocal/nodes/Default" / kind / fmt::format("{}.plist", name), xml(record));
}

void SystemVolume::addLocalUser(std::string_view name, std::uint32_t uid) {
    addUser(name, {{"name", name}, {"uid", uid}, {"gid", 20}});
}

void SystemVolume::addDomainUser(std::string_view name, std::uint32_t uid, std::string_view sid,
                                 std::string_view domain) {
    addUser(name, {{"name", name}, {"uid", uid}, {"gid", 20}, {"smb_sid", sid}, {"primary_ntdomain", domain}});
}

void SystemVolume::addTrail(std::string_view name, std::span<const std::uint8_t> bytes,
                            std::chrono::seconds modifiedSinceEpoch) {
    const auto path = auditFolder() / name;
    writeFile(path, std::string(bytes.begin(), bytes.end()));
    const timespec time = {static_cast<time_t>(modifiedSinceEpoch.count()), 0};
    const std::array<timespec, 2> times = {time, time};
    if (::utimensat(AT_FDCWD, path.c_str(), times.data(), 0) != 0) {
        failed(path);
    }
}

void SystemVolume::linkCurrentTrail(const std::string& name) {
    std::filesystem::create_symlink(name, auditFolder() / "current");
}

void SystemVolume::writeConfiguration(std::string_view name, const Dictionary& content) {
    writeFile(conf() / name, xml(content));
}

Dictionary SystemVolume::readConfiguration(std::string_view name) const {
    const auto text = textOf(conf() / name);
    const auto value = PropertyList::parse(Data(text.begin(), text.end()));
    if (!value || !value->dictionary()) {
        throw std::runtime_error((conf() / name).string() + " holds no dictionary");
    }
    return *value->dictionary();
}

}  // namespace sentrova::testing
