// Converts the error numbers of audit records, which are the same on every host, to the numbers of the running host.

#pragma once

#include <cstdint>
#include <optional>

namespace sentrova::bsm {

// The host's error number (errno) for the status of a return token; 0 means success. Returns nothing for an unassigned
// status or an error that this host does not have.
std::optional<int> au_bsm_to_errno(std::uint8_t status);

}  // namespace sentrova::bsm
