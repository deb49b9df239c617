// Names for the numbers in audit records, and the machine's place in its domain.
//
// The domain and what the directory knows of a user are remembered for the life of the process, names of ids for a
// minute. A user whom the directory does not know is asked for each time; an id without a name is remembered as such
// for a second. Safe from any thread.

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

    // A user's details by the directory's attribute names, each the array of its values, or an empty value for an
    // attribute that the record does not have.
    using UserDetails = std::shared_ptr<const Dictionary>;
    static constexpr const char* kODAttributeTypePrimaryNTDomain = "dsAttrTypeStandard:PrimaryNTDomain";
    static constexpr const char* kODAttributeTypeUniqueID = "dsAttrTypeStandard:UniqueID";
    static constexpr const char* kODAttributeTypeSMBSID = "dsAttrTypeStandard:SMBSID";
    static constexpr const char* kODAttributeTypeRecordName = "dsAttrTypeStandard:RecordName";

    // The Active Directory domain, and the computer's account in it without the "$" at its end. Nothing when the
    // machine is in no domain. Until setDomainName has been called nothing is remembered and each call runs the
    // directory tool.
    static std::optional<std::string> getDomainName();
    static std::optional<std::string> getHostName();
    // Without a name what is known stays, and is remembered from now on.
    static void setDomainName(const std::optional<std::string>& domain);

    // Null when the directory has no such user.
    static UserDetails getUserDetails(const std::string& user);
    // Asks the directory and remembers what it knows of the user.
    static void setUserDetails(const std::string& user);

    // The account's name, or the number, signed, where there is no account. The unset id, 4294967295, has none and is
    // never looked up.
    static std::string getUserNameFromID(std::uint32_t id);
    static std::string getGroupNameFromID(std::uint32_t id);

    // Dotted-quad text of an address whose bytes lie in memory in network order.
    static std::string getIpAddressFromID(std::uint32_t address);

    // "success", "failure : " with the reason, or "failure: Unknown error: " with the status.
    static std::string getEventTypeText(std::uint8_t status);
};

}  // namespace sentrova
