// The checksum of the durable mode: the first 16 hexadecimal digits of SHA-256.

#pragma once

#include "foundation/value/Cryptography.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace sentrova {

std::string digestOf(std::span<const std::uint8_t> bytes, const Cryptography& cryptography);
std::string digestOf(std::string_view text, const Cryptography& cryptography);

}  // namespace sentrova
