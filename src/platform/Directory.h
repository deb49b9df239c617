// Users and groups, as the system's directory knows them.

#pragma once

#include "foundation/files/FileSystem.h"
#include "foundation/time/Clock.h"
#include "foundation/value/Result.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sentrova::platform {

// The directory's standard names of the attributes that the agent reads.
inline constexpr const char* kAttributeRecordName = "dsAttrTypeStandard:RecordName";
inline constexpr const char* kAttributeUniqueId = "dsAttrTypeStandard:UniqueID";
inline constexpr const char* kAttributeSmbSid = "dsAttrTypeStandard:SMBSID";
inline constexpr const char* kAttributePrimaryNtDomain = "dsAttrTypeStandard:PrimaryNTDomain";

// A record's attributes by their standard names, each with its values in the directory's order.
using DirectoryRecord = std::map<std::string, std::vector<std::string>>;

// Safe from any thread.
class Directory {
  public:
    virtual ~Directory() = default;

    // The host's directory, which may use the file system and the clock for as long as it lives.
    static std::unique_ptr<Directory> make(FileSystem& files, Clock& clock);

    // The account name of an id; nothing for an id without an account.
    virtual std::optional<std::string> userName(std::uint32_t id) = 0;
    virtual std::optional<std::string> groupName(std::uint32_t id) = 0;

    // The records of the users whose record name equals the name, all nodes of the authentication search path
    // together; an empty list when there is none. Slow: a network directory may be asked.
    virtual Result<std::vector<DirectoryRecord>> usersNamed(const std::string& name) = 0;

  protected:
    Directory() = default;
    Directory(const Directory&) = default;
    Directory& operator=(const Directory&) = default;
};

}  // namespace sentrova::platform
