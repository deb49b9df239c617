// Users and groups, as the system's directory knows them.

#pragma once

#include "foundation/Result.h"

#include <cstdint>
#include <map>
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

    // The host's directory, unless a test has put its own in its place.
    static Directory& shared();
    static void install(Directory* directory);

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

  private:
    static Directory& host();
};

}  // namespace sentrova::platform
