#include "control/ReplayTrails.h"

#include "collection/TrailFile.h"
#include "collection/bsm/RecordReader.h"
#include "collection/bsm/TokenReader.h"
#include "forwarding/RecordDigest.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <numeric>
#include <span>
#include <utility>
#include <variant>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

// A rotation renames a trail between its listing and its opening.
constexpr int kAttempts = 3;

// Nothing for a file token and for a damaged header.
std::optional<std::uint64_t> timeOf(std::span<const std::uint8_t> record) {
    bsm::TokenReader tokens(record);
    const auto* const header =
        tokens.au_fetch_tok() == 0 ? std::get_if<bsm::HeaderToken>(&tokens.token().content) : nullptr;
    return header ? std::optional(header->seconds) : std::nullopt;
}

Result<ReplayTrail> readTrail(FileSystem& files, const Cryptography& cryptography, const Trail& trail,
                              std::uint64_t since, const ReplayTrails::Take& take) {
    const auto file = TrailFile::open(files, trail.path());
    if (!file) {
        return file.error();
    }
    ReplayTrail found;
    found.trail = trail;
    bsm::RecordReader reader(**file);
    for (std::uint64_t begin = 0;; begin = reader.position()) {
        const auto length = reader.au_read_rec();
        if (length < 0) {
            break;
        }
        if (length == 0) {
            continue;
        }
        if (begin == 0) {
            found.firstRecord = digestOf(reader.record(), cryptography);
        }
        take(reader.record());
        const auto time = timeOf(reader.record());
        if (!time) {
            continue;
        }
        if (*time >= since && found.records++ == 0) {
            found.firstOffset = begin;
        }
        if (found.admissible.empty() || found.admissible.rbegin()->first <= *time) {
            ++found.admissible[*time];
        }
    }
    if (reader.end() == bsm::RecordReader::End::kReadError) {
        return Error{kPosixErrorDomain, (*file)->problem(),
                     fmt::format("{} cannot be read from offset {} on: {}", trail.path(), reader.position(),
                                 posixError((*file)->problem()).description)};
    }
    return found;
}

}  // namespace

Result<ReplayTrails> ReplayTrails::read(FileSystem& files, const Cryptography& cryptography, std::uint64_t since,
                                        const Take& take) {
    for (int attempt = 1;; ++attempt) {
        const auto listed = TrailFolder(files).trails();
        if (!listed) {
            return Error{kPosixErrorDomain, listed.error().code,
                         fmt::format("the audit trails in {} cannot be listed: {}", TrailFolder::kPath,
                                     posixError(static_cast<int>(listed.error().code)).description)};
        }
        ReplayTrails trails;
        trails.since_ = since;
        std::optional<Error> problem;
        for (auto trail = listed->begin(); trail != listed->end() && !problem; ++trail) {
            auto found = readTrail(files, cryptography, *trail, since, take);
            if (found) {
                trails.trails_.push_back(*std::move(found));
            } else {
                problem = found.error();
            }
        }
        if (!problem) {
            return trails;
        }
        if (problem->code != ENOENT || attempt == kAttempts) {
            return *problem;
        }
    }
}

std::uint64_t ReplayTrails::trails() const {
    return static_cast<std::uint64_t>(std::ranges::count_if(trails_, [](const auto& one) { return one.records > 0; }));
}

std::uint64_t ReplayTrails::records() const {
    return std::accumulate(trails_.begin(), trails_.end(), std::uint64_t{0},
                           [](std::uint64_t sum, const auto& one) { return sum + one.records; });
}

// The rules of EventCollector and LastRead.
ReplayTrails::Admitted ReplayTrails::admittedFrom(std::uint64_t storedTime) const {
    Admitted admitted;
    auto last = storedTime;
    for (const auto& one : trails_) {
        if (one.trail.modified < dateFromEpoch(static_cast<double>(last))) {
            continue;
        }
        last += last < std::numeric_limits<std::uint64_t>::max() ? 1U : 0U;
        for (auto second = one.admissible.lower_bound(last); second != one.admissible.end(); ++second) {
            last = second->first;
            (last < since_ ? admitted.older : admitted.wanted) += second->second;
        }
    }
    return admitted;
}

std::optional<std::uint64_t> ReplayTrails::storedTime() const {
    const auto wanted = admittedFrom(0).wanted;
    // Each trail without a new record takes one second more.
    for (std::uint64_t earlier = 1; earlier <= std::min<std::uint64_t>(since_, trails_.size() + 1); ++earlier) {
        const auto admitted = admittedFrom(since_ - earlier);
        if (admitted.older == 0 && admitted.wanted == wanted) {
            return since_ - earlier;
        }
    }
    return std::nullopt;
}

}  // namespace sentrova::control
