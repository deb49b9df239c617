#include "forwarding/JournalState.h"

#include <algorithm>
#include <limits>
#include <numeric>
#include <tuple>
#include <utility>

namespace sentrova {

void JournalState::apply(journal::Entry&& entry) {
    std::visit([this](auto& one) { applyOne(one); }, entry);
}

void JournalState::applyOne(journal::EventAccepted& entry) {
    auto& event = openEvents_.emplace_back();
    event.text = std::move(entry.text);
    event.isFromDevice = entry.isFromDevice;
}

void JournalState::applyOne(const journal::PositionMoved& entry) {
    positions_.insert_or_assign(entry.position.trail, entry.position);
}

void JournalState::applyOne(const journal::TrailForgotten& entry) {
    positions_.erase(entry.trail);
}

void JournalState::applyOne(const journal::TrailJoined& entry) {
    openFrom_.push_back(entry.before);
}

void JournalState::applyOne(const journal::DeviceRecordCounted& entry) {
    auto& record = deviceRecords_[entry.digest];
    if (__builtin_add_overflow(record.count, entry.count, &record.count)) {
        record.count = std::numeric_limits<std::int64_t>::max();
    }
    record.time = std::max(record.time, entry.time);
    if (record.count <= 0) {
        deviceRecords_.erase(entry.digest);
    } else if (deviceRecords_.size() > kMostDeviceRecords) {
        deviceRecords_.erase(std::ranges::min_element(
            deviceRecords_, {}, [](const auto& one) { return std::tie(one.second.time, one.first); }));
    }
}

void JournalState::applyOne(journal::BatchSealed& entry) {
    auto content = entry.body.empty() ? bodyOf(openEvents_) : std::string();
    auto& body = bodies_[entry.batch.name];
    auto& batch = batches_[entry.batch.name];
    batch = entry.batch;
    // Nothing below needs memory.
    body = std::move(entry.body.empty() ? content : entry.body);
    batch.from = std::exchange(openFrom_, {});
    openEvents_.clear();
    ended_.erase(batch.name);
}

void JournalState::applyOne(const journal::BatchKnown& entry) {
    batches_.insert_or_assign(entry.batch.name, entry.batch);
    ended_.erase(entry.batch.name);
}

void JournalState::applyOne(const journal::KeyGiven& entry) {
    if (const auto batch = batches_.find(entry.name); batch != batches_.end()) {
        batch->second.key = entry.key;
    }
}

void JournalState::applyOne(const journal::BatchRefused& entry) {
    if (const auto batch = batches_.find(entry.name); batch != batches_.end()) {
        batch->second.refusals = entry.refusals;
        batch->second.firstRefused = entry.firstRefused;
        batch->second.status = entry.status;
    }
}

void JournalState::applyOne(const journal::BatchEnded& entry) {
    batches_.erase(entry.name);
    bodies_.erase(entry.name);
    ended_.insert_or_assign(entry.name, entry.keptAs);
}

void JournalState::applyOne(const journal::PartEvent& entry) {
    partEvents_.push_back({entry.text, false});
}

void JournalState::applyOne(const journal::PartSealed& entry) {
    batches_.insert_or_assign(entry.batch.name, entry.batch);
    bodies_.insert_or_assign(entry.batch.name, bodyOf(partEvents_));
    partEvents_.clear();
    ended_.erase(entry.batch.name);
}

void JournalState::applyOne(const journal::BaselineSet& entry) {
    baseline_ = entry.time;
}

std::vector<journal::Entry> JournalState::entries() const {
    std::vector<journal::Entry> entries;
    if (baseline_) {
        entries.emplace_back(journal::BaselineSet{baseline_});
    }
    for (const auto& [trail, position] : positions_) {
        entries.emplace_back(journal::PositionMoved{position});
    }
    for (const auto& [digest, record] : deviceRecords_) {
        entries.emplace_back(journal::DeviceRecordCounted{digest, record.count, record.time});
    }
    for (const auto& [name, batch] : batches_) {
        entries.emplace_back(journal::BatchKnown{batch});
    }
    for (const auto& [name, keptAs] : ended_) {
        entries.emplace_back(journal::BatchEnded{name, keptAs});
    }
    for (const auto& position : openFrom_) {
        entries.emplace_back(journal::TrailJoined{position});
    }
    for (const auto& event : openEvents_) {
        entries.emplace_back(journal::EventAccepted{event.text, event.isFromDevice});
    }
    return entries;
}

std::string JournalState::bodyOf(const std::vector<OpenEvent>& events) {
    std::string body;
    body.reserve(std::accumulate(events.begin(), events.end(), std::size_t{1},
                                 [](std::size_t sum, const auto& event) { return sum + event.text.size() + 1; }));
    for (const auto& event : events) {
        body += body.empty() ? '[' : ',';
        body += event.text;
    }
    body += body.empty() ? "[]" : "]";
    return body;
}

void JournalState::dropEnded(const std::set<std::string>& names) {
    for (const auto& name : names) {
        ended_.erase(name);
    }
}

std::map<std::string, std::string> JournalState::takeBodies() {
    return std::exchange(bodies_, {});
}

}  // namespace sentrova
