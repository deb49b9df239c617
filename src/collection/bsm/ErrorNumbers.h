// The error numbers of audit records, which are the same on every host, as the running host numbers them.

#pragma once

#include <cstdint>
#include <optional>

namespace sentrova::bsm {

// The host's error number (errno) for a return token's status; 0 for success. Nothing for a number that is not
// assigned or an error that this host does not have.
std::optional<int> au_bsm_to_errno(std::uint8_t status);

}  // namespace sentrova::bsm
