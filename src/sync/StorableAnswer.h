// What of a server's answer `Serverinfo.plist` can hold.

#pragma once

#include "foundation/value/Value.h"

#include <string>
#include <vector>

namespace sentrova {

struct StorableAnswer {
    // At most so many texts are named.
    static constexpr std::size_t kMostNamed = 10;

    // The answer without its nulls, and without the entries whose key or text XML cannot carry.
    Dictionary content;
    // Where such texts stood, as ".key[2].key".
    std::vector<std::string> dropped;
    std::size_t droppedCount = 0;

    explicit StorableAnswer(const Dictionary& answer);
};

}  // namespace sentrova
