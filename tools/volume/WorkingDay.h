// The audit trails of one working day on a Mac: boot, console logons, screen unlocks, Touch ID, sudo, ssh, failures and
// logouts of five users, among many records that are not collected.
//
// The same start and seed give the same bytes.

#pragma once

#include "volume/SystemVolume.h"
#include "volume/TrailRecord.h"
#include "volume/TrailWriter.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace sentrova::testing {

class WorkingDay {
  public:
    // A trail file: its name in the audit folder, and its content.
    struct Trail {
        std::string name;
        TrailWriter content;
    };

    static constexpr std::chrono::hours kLength{10};

    // The day begins at `start` and lasts ten hours.
    WorkingDay(std::chrono::seconds startSinceEpoch, std::uint32_t seed);

    // The closed trails in time order, followed by the one that is still being written.
    const std::vector<Trail>& trails() const { return trails_; }
    // The number of records of collected types, and of all others.
    std::size_t logonRecords() const { return logonRecords_; }
    std::size_t otherRecords() const { return otherRecords_; }

    // Adds the users, their groups and the trails to the volume.
    void putOn(SystemVolume& volume) const;

  private:
    struct Person;
    static const Person kAnna;
    static const Person kEva;
    static const Person kBruno;
    static const Person kCarla;
    static const Person kDora;

    std::uint32_t random(std::uint32_t below) { return static_cast<std::uint32_t>(random_()) % below; }
    TrailRecord& add(std::uint16_t event, std::chrono::seconds time);
    // Adds a record of either kind at a time of the day; the caller completes it.
    TrailRecord& logon(std::uint16_t event, std::chrono::seconds sinceStart);
    TrailRecord& other(std::uint16_t event, std::chrono::seconds sinceStart);

    void boot();
    void wrongPassword(const Person& person, std::chrono::seconds at);
    void consoleLogon(const Person& person, std::chrono::seconds at, std::uint32_t session);
    void consoleLogout(const Person& person, std::chrono::seconds at, std::uint32_t session);
    void unlock(const Person& person, std::chrono::seconds at, std::uint32_t session);
    void touchId(std::chrono::seconds at, std::uint32_t session);
    void refusedAuthorization(const Person& person, std::chrono::seconds at);
    void terminal(const Person& person, std::chrono::seconds at, std::uint32_t session);
    void remoteSession(const Person& person, std::chrono::seconds at, const std::string& from);
    void noise(std::chrono::seconds at);
    void split();

    std::chrono::seconds start_;
    std::mt19937 random_;
    // In time order; records of one second in order of creation.
    std::multimap<std::chrono::seconds, TrailRecord> records_;
    std::vector<Trail> trails_;
    std::size_t logonRecords_ = 0;
    std::size_t otherRecords_ = 0;
};

}  // namespace sentrova::testing
