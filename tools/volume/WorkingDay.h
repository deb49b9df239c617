// The audit trails of one Mac's working day: boot, console logons, screen unlocks, Touch ID, sudo, ssh, failures and
// logouts of five people, amid the many records that nobody collects.
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
    // How a trail file is called in the audit folder, and what is in it.
    struct Trail {
        std::string name;
        TrailWriter content;
    };

    static constexpr std::chrono::hours kLength{10};

    // The day begins at the given time and lasts ten hours.
    WorkingDay(std::chrono::seconds startSinceEpoch, std::uint32_t seed);

    // The closed trails in the order of their times; the last one is the trail still being written, "current".
    const std::vector<Trail>& trails() const { return trails_; }
    // Records of logons and the like, and all others.
    std::size_t logonRecords() const { return logonRecords_; }
    std::size_t otherRecords() const { return otherRecords_; }

    // Makes the people of the day, their groups and the trails known to the volume.
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
    // A record of either kind at a time of the day, to be completed by the caller.
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
    // In the order of their times; records of one second in the order in which they were made.
    std::multimap<std::chrono::seconds, TrailRecord> records_;
    std::vector<Trail> trails_;
    std::size_t logonRecords_ = 0;
    std::size_t otherRecords_ = 0;
};

}  // namespace sentrova::testing
