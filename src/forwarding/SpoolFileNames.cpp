#include "forwarding/SpoolFileNames.h"

#include <fmt/format.h>

namespace sentrova {

std::string SpoolFileNames::next(const std::string& folder) {
    auto stamp = std::chrono::floor<std::chrono::milliseconds>(clock_.wallTime());
    // If the clock is set back by less than an hour, names continue after the latest one and so keep their order. If it
    // is set back further, names follow the clock again.
    if (stamp <= lastStamp_ && lastStamp_ - stamp < std::chrono::hours(1)) {
        stamp = lastStamp_ + std::chrono::milliseconds(1);
    }
    for (;; stamp += std::chrono::milliseconds(1)) {
        auto name = fmt::format("{}{}", kPrefix, dates_.format("yyyyMMddHHmmssSSS", Date(stamp)));
        if (!files_.exists(fmt::format("{}/{}", folder, name))) {
            lastStamp_ = stamp;
            return name;
        }
    }
}

}  // namespace sentrova
