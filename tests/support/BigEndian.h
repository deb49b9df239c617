// Appends numbers to bytes as audit records hold them: the highest byte first.

#pragma once

#include "foundation/Value.h"

#include <cstdint>
#include <span>
#include <string_view>

namespace sentrova::testing {

inline void append8(Data& to, std::uint8_t value) {
    to.push_back(value);
}

inline void append16(Data& to, std::uint16_t value) {
    append8(to, static_cast<std::uint8_t>(value >> 8));
    append8(to, static_cast<std::uint8_t>(value));
}

inline void append32(Data& to, std::uint32_t value) {
    append16(to, static_cast<std::uint16_t>(value >> 16));
    append16(to, static_cast<std::uint16_t>(value));
}

inline void append64(Data& to, std::uint64_t value) {
    append32(to, static_cast<std::uint32_t>(value >> 32));
    append32(to, static_cast<std::uint32_t>(value));
}

inline void appendBytes(Data& to, std::span<const std::uint8_t> bytes) {
    to.insert(to.end(), bytes.begin(), bytes.end());
}

inline void appendText(Data& to, std::string_view text) {
    to.insert(to.end(), text.begin(), text.end());
}

}  // namespace sentrova::testing
