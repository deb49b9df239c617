#include "collection/TrailFolder.h"

#include "platform/SystemPath.h"

#include <algorithm>
#include <cerrno>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>

namespace sentrova {

namespace {

constexpr std::string_view kCurrent = "current";

bool isOpenName(std::string_view name) {
    return name.ends_with(".not_terminated");
}

}  // namespace

std::string Trail::path() const {
    return std::string(TrailFolder::kPath) + "/" + name;
}

Result<std::vector<Trail>> TrailFolder::trails() {
    const auto folder = platform::systemPath(kPath);
    auto names = files_.names(folder);
    if (!names) {
        return names.error();
    }
    std::ranges::sort(*names);
    std::vector<Trail> trails;
    std::set<std::pair<std::uint64_t, std::uint64_t>> known;
    for (auto& name : *names) {
        const auto status = files_.status(folder + "/" + name);
        if (!status && status.error().code != ENOENT && status.error().code != ELOOP) {
            return status.error();
        }
        if (status && status->isRegular && name != kCurrent && known.emplace(status->device, status->identity).second) {
            const bool isOpen = isOpenName(name);
            trails.push_back({.name = std::move(name),
                              .device = status->device,
                              .inode = status->identity,
                              .size = status->size,
                              .modified = status->modificationDate,
                              .isOpen = isOpen});
        }
    }
    std::ranges::sort(trails, [](const Trail& one, const Trail& other) {
        return std::tie(one.modified, one.name) < std::tie(other.modified, other.name);
    });
    return trails;
}

bool TrailFolder::isWritten() {
    const auto folder = platform::systemPath(kPath);
    const auto names = files_.names(folder);
    return names && std::ranges::any_of(*names, [&](const std::string& name) {
               if (name != kCurrent) {
                   return isOpenName(name);
               }
               const auto link = files_.linkStatus(folder + "/" + name);
               return link && link->isSymbolicLink;
           });
}

}  // namespace sentrova
