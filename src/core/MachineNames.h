// The names of the machine: its domain, and its account name in the domain.

#pragma once

#include <optional>
#include <string>

namespace sentrova {

// Safe from any thread. The calls may run the system's directory tool and block for seconds.
class MachineNames {
  public:
    virtual ~MachineNames() = default;

    // Absent if the machine is in no domain.
    virtual std::optional<std::string> domainName() = 0;
    virtual std::optional<std::string> hostName() = 0;
    // Stores the name, if one is given. From the first call on, the names are remembered, so that the tool is not run
    // again for a known name.
    virtual void setDomainName(const std::optional<std::string>& domain) = 0;

  protected:
    MachineNames() = default;
    MachineNames(const MachineNames&) = default;
    MachineNames& operator=(const MachineNames&) = default;
};

}  // namespace sentrova
