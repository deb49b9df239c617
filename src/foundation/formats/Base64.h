// Base64 (RFC 4648, section 4: with "+" and "/", padded with "=").

#pragma once

#include "foundation/value/Value.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace sentrova {

// In one line.
std::string toBase64(std::span<const std::uint8_t> bytes);

// Nothing for a text that is not base64 from end to end; blanks are not.
std::optional<Data> fromBase64(std::string_view text);

}  // namespace sentrova
