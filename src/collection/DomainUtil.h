// Names for the numbers in audit records, and the machine's domain.
//
// The domain and a user's directory details are remembered for the life of the process, names of ids for a minute. A
// user that the directory does not know is looked up each time. An id without a name is remembered for a second. Safe
// from any thread.

#pragma once

#include "foundation/value/Value.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace sentrova {

class DomainUtil {
  public:
    DomainUtil() = delete;

    // A user's details, by the directory's attribute names. Each value is an array, or an empty value if the record
    // lacks the attribute.
    using UserDetails = std::shared_ptr<const Dictionary>;
    static constexpr const char* kODAttributeTypePrimaryNTDomain = "dsAttrTypeStandard:PrimaryNTDomain";
    static constexpr const char* kODAttributeTypeUniqueID = "dsAttrTypeStandard:UniqueID";
    static constexpr const char* kODAttributeTypeSMBSID = "dsAttrTypeStandard:SMBSID";
    static constexpr const char* kODAttributeTypeRecordName = "dsAttrTypeStandard:RecordName";

    // The Active Directory domain, and the computer account in it without the "$" at its end. Both return nothing if
    // the machine is in no domain. Before the first call of setDomainName nothing is remembered, and each call runs the
    // directory tool.
    static std::optional<std::string> getDomainName();
    static std::optional<std::string> getHostName();
    // Remembers the domain. Without a name, the known domain stays; remembering starts in either case.
    static void setDomainName(const std::optional<std::string>& domain);

    // Returns null if the directory has no such user.
    static UserDetails getUserDetails(const std::string& user);
    // Looks the user up in the directory and remembers the details.
    static void setUserDetails(const std::string& user);

    // The account's name, or the id as a signed number if there is no account. The unset id, 4294967295, is never
    // looked up.
    static std::string getUserNameFromID(std::uint32_t id);
    static std::string getGroupNameFromID(std::uint32_t id);

    // The dotted-quad text of an address that is stored in network byte order.
    static std::string getIpAddressFromID(std::uint32_t address);

    // "success", "failure : " and the reason, or "failure: Unknown error: " and the status.
    static std::string getEventTypeText(std::uint8_t status);
};

}  // namespace sentrova
