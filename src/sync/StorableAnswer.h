// The part of a server's answer that `Serverinfo.plist` can store.

#pragma once

#include "foundation/value/Value.h"

#include <string>
#include <vector>

namespace sentrova {

struct StorableAnswer {
    // The highest number of dropped texts that are named.
    static constexpr std::size_t kMostNamed = 10;

    // The answer without nulls, and without entries whose key or text XML cannot represent.
    Dictionary content;
    // The paths of dropped texts, as ".key[2].key".
    std::vector<std::string> dropped;
    // The number of all dropped texts.
    std::size_t droppedCount = 0;

    explicit StorableAnswer(const Dictionary& answer);
};

}  // namespace sentrova
