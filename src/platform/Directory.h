// The users and groups in the system's directory.

#pragma once

#include "foundation/files/FileSystem.h"
#include "foundation/run/Clock.h"
#include "foundation/value/Result.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sentrova::platform {

// The directory's standard names for the attributes that the agent reads.
inline constexpr const char* kAttributeRecordName = "dsAttrTypeStandard:RecordName";
inline constexpr const char* kAttributeUniqueId = "dsAttrTypeStandard:UniqueID";
inline constexpr const char* kAttributeSmbSid = "dsAttrTypeStandard:SMBSID";
inline constexpr const char* kAttributePrimaryNtDomain = "dsAttrTypeStandard:PrimaryNTDomain";

// A record's attributes by standard name. The values of each keep the directory's order.
using DirectoryRecord = std::map<std::string, std::vector<std::string>>;

// Safe from any thread.
class Directory {
  public:
    virtual ~Directory() = default;

    // The host's implementation. The file system and the clock must outlive the directory.
    static std::unique_ptr<Directory> make(FileSystem& files, Clock& clock);

    // The account name of an id. Absent for an unknown id.
    virtual std::optional<std::string> userName(std::uint32_t id) = 0;
    virtual std::optional<std::string> groupName(std::uint32_t id) = 0;

    // The records of all users with the record name, from all nodes of the authentication search path. Empty if there
    // are none. May block for seconds, because a node may be a network directory.
    virtual Result<std::vector<DirectoryRecord>> usersNamed(const std::string& name) = 0;

  protected:
    Directory() = default;
    Directory(const Directory&) = default;
    Directory& operator=(const Directory&) = default;
};

}  // namespace sentrova::platform
