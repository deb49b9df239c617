#include "forwarding/WaitingFiles.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace sentrova {

void WaitingFiles::add(std::string name) {
    const auto place = std::ranges::lower_bound(names_, name);
    if (place == names_.end() || *place != name) {
        names_.insert(place, std::move(name));
    }
}

void WaitingFiles::assign(std::vector<std::string> names) {
    std::ranges::sort(names);
    names_.assign(std::move_iterator(names.begin()), std::move_iterator(names.end()));
}

void WaitingFiles::remove(const std::string& name) {
    const auto place = std::ranges::lower_bound(names_, name);
    if (place != names_.end() && *place == name) {
        names_.erase(place);
    }
}

std::optional<std::string> WaitingFiles::takeFirst() {
    if (names_.empty()) {
        return std::nullopt;
    }
    auto name = std::move(names_.front());
    names_.pop_front();
    return name;
}

}  // namespace sentrova
