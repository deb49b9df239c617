#include "core/UnwrittenLines.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace sentrova {

UnwrittenLines::Lines UnwrittenLines::take(std::string_view category, const std::string& path) {
    MutexLock lock(mutex_);
    const auto found = lines_.find(category);
    auto lines = found == lines_.end() ? Lines() : std::move(lines_.extract(found).mapped());
    const auto file = lastFile_.find(category);
    lines.isAfterWholeLine = file != lastFile_.end() && file->second == path;
    return lines;
}

void UnwrittenLines::noteWritten(std::string_view category, const std::string& path) {
    MutexLock lock(mutex_);
    lastFile_[std::string(category)] = path;
    if (told_ == category) {
        told_.clear();
    }
}

bool UnwrittenLines::add(std::string_view category, Lines lines) {
    constexpr std::size_t kMostKept = 100;
    MutexLock lock(mutex_);
    auto& kept = lines_[std::string(category)];
    kept.count += lines.count;
    std::ranges::move(lines.errors, std::back_inserter(kept.errors));
    kept.errors.resize(std::min(kept.errors.size(), kMostKept));
    kept.reason = std::move(lines.reason);
    lastFile_.erase(std::string(category));
    const bool isNew = told_.empty();
    if (isNew) {
        told_ = category;
    }
    return isNew;
}

}  // namespace sentrova
