// Shared by the fuzz targets: the function that each defines, and the check of invariants.

#pragma once

#include "foundation/value/Value.h"

#include <cstdlib>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

namespace sentrova::testing {

// Runs one input, from the fuzzer or, through Replay.cpp, from the corpus.
void fuzz(std::span<const std::uint8_t> input);

inline std::string_view asText(std::span<const std::uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

inline std::span<const std::uint8_t> asBytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// Ends the process, as a finding, if the invariant does not hold.
inline void require(bool holds, std::string_view invariant, std::string_view detail = {}) {
    if (!holds) {
        fmt::print(stderr, "INVARIANT BROKEN: {}\n{}\n", invariant, detail);
        std::abort();
    }
}

// The first parts of an input between its separators.
inline std::vector<std::string_view> parts(std::string_view input, char separator, std::size_t most) {
    std::vector<std::string_view> all;
    for (std::size_t at = 0; at <= input.size() && all.size() < most; at += all.back().size() + 1) {
        all.push_back(input.substr(at, input.find(separator, at) - at));
    }
    return all;
}

}  // namespace sentrova::testing
