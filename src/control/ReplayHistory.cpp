#include "control/ReplayHistory.h"

#include "collection/Event.h"
#include "core/GlobalConstants.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

bool mayFeedHistory(std::uint16_t eventType) {
    return eventType == AuditEventNumber::lw_login || eventType == AuditEventNumber::auth_user ||
           eventType == AuditEventNumber::ssauthint;
}

}  // namespace

void ReplayHistory::Latest::addToLoginHistory(const Dictionary& entry, double time) {
    const auto key = Value(time).integerValue();
    if (entries_.empty() || entries_.begin()->first <= key) {
        entries_ = {{key, entry}};
    }
}

ReplayHistory::ReplayHistory(const InstallationFolder& installation, FileSystem& files,
                             const std::optional<std::string>& eventsToRead, std::uint64_t since)
    : installation_(installation),
      files_(files),
      since_(since),
      selection_(EventSelection::split(eventsToRead)),
      directory_(platform::Directory::make(files, clock_)),
      context_({.directory = *directory_, .files = files, .clock = clock_, .console = {}}, {}, {}),
      events_(
          [this](std::uint16_t eventType, std::uint64_t seconds) {
              return seconds < since_ && mayFeedHistory(eventType) && selection_.contains(eventType);
          },
          [](const Dictionary&) {}, context_, {}) {}

std::optional<std::string> ReplayHistory::store(std::uint64_t time) const {
    const auto path = fmt::format("{}/{}", installation_.conf(), GlobalConstants::CURRENT_LOGINS_FILE);
    KeyedArchive::Content history;
    if (const auto bytes = files_.read(path)) {
        auto content = KeyedArchive::unarchive(*bytes);
        // The agent's next start begins a damaged history anew.
        history = content ? *std::move(content) : KeyedArchive::Content();
    } else if (bytes.error().code != ENOENT) {
        return bytes.error().description;
    }
    const auto next = history.lower_bound(static_cast<std::int64_t>(since_));
    auto latest = context_.entries();
    if (next != history.begin()) {
        latest.insert(*std::prev(next));
    }
    if (latest.empty()) {
        return std::nullopt;
    }
    // An entry of that very second is later.
    if (!history.try_emplace(static_cast<std::int64_t>(time), latest.rbegin()->second).second) {
        return std::nullopt;
    }
    const auto bytes = KeyedArchive::archive(history);
    if (!bytes) {
        return bytes.error().description;
    }
    const auto written = files_.writeAtomically(path, *bytes, FileSystem::Durability::flushed);
    return written ? std::nullopt : std::optional(written.error().description);
}

}  // namespace sentrova::control
