// The names under which the machine is known: its domain, and its account in the domain.

#pragma once

#include <optional>
#include <string>

namespace sentrova {

// Safe from any thread. May run the system's directory tool, which takes seconds.
class MachineNames {
  public:
    virtual ~MachineNames() = default;

    // Nothing when the machine is in no domain.
    virtual std::optional<std::string> domainName() = 0;
    virtual std::optional<std::string> hostName() = 0;
    // Without a name what is known stays, and is remembered from now on.
    virtual void setDomainName(const std::optional<std::string>& domain) = 0;

  protected:
    MachineNames() = default;
    MachineNames(const MachineNames&) = default;
    MachineNames& operator=(const MachineNames&) = default;
};

}  // namespace sentrova
