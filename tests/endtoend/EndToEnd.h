// Shared by the end-to-end tests: the agent's environment, and records of sudo that differ in their process ids.

#pragma once

#include "BuildPaths.h"
#include "server/AuditServer.h"
#include "support/RunningAgent.h"
#include "volume/TrailWriter.h"

#include <charconv>
#include <fstream>

#include <gtest/gtest.h>

namespace sentrova::testing {

using Processes = std::multiset<std::int64_t>;

inline TrailRecord sudoRecord(std::chrono::seconds time, std::uint32_t process) {
    return TrailRecord(45028).at(time).subject({.auditId = 4001, .processId = process}).returns(0);
}

inline TrailWriter sudoTrail(std::chrono::seconds begin, std::uint32_t firstProcess, std::uint32_t count,
                             std::chrono::seconds apart = std::chrono::seconds(1)) {
    TrailWriter trail;
    for (std::uint32_t i = 0; i < count; ++i) {
        trail.add(sudoRecord(begin + i * apart, firstProcess + i));
    }
    return trail;
}

// Adds a closed trail, last modified at the time of its last record.
inline void addTrail(SystemVolume& volume, const TrailWriter& trail) {
    volume.addTrail(std::to_string(trail.lastTime().count()), trail.bytes(), trail.lastTime());
}

// The process ids of all events in the text.
inline Processes processesIn(const std::string& text) {
    constexpr std::string_view kKey = "\"subject_pid\":";
    Processes found;
    for (auto at = text.find(kKey); at != std::string::npos; at = text.find(kKey, at + 1)) {
        std::int64_t process = 0;
        if (std::from_chars(text.data() + at + kKey.size(), text.data() + text.size(), process).ec == std::errc()) {
            found.insert(process);
        }
    }
    return found;
}
inline Processes processesIn(const std::vector<std::string>& events) {
    Processes found;
    for (const auto& event : events) {
        found.merge(processesIn(event));
    }
    return found;
}

inline Processes eachOnce(std::int64_t first, std::int64_t count) {
    Processes processes;
    for (auto process = first; process < first + count; ++process) {
        processes.insert(process);
    }
    return processes;
}

// A repeated task of `schedules.plist`, every `interval` seconds.
inline Dictionary taskEntry(const char* name, const char* className, const char* selector, int interval) {
    return {{"TaskName", name},       {"IntervalSeconds", interval}, {"Repeat", true},
            {"TaskStatus", "Enable"}, {"className", className},      {"selector", selector}};
}

// The agent's own program between a system volume and a server on loopback.
class EndToEnd : public ::testing::Test {
  protected:
    void SetUp() override {
        if (const auto reason = whyNoAgentRuns()) {
            GTEST_SKIP() << *reason;
        }
    }
    void configure() {
        volume.writeConfiguration("Serverinfo.plist", serverInfo);
        volume.writeConfiguration("myconfigurations.plist", mine);
    }
    std::string log(std::string_view category = "Config") const { return logOf(volume, category); }
    void removeLogs() {
        std::filesystem::remove_all(volume.logs());
        std::filesystem::create_directories(volume.logs() / "archive");
    }

    AuditServer server;
    SystemVolume volume;
    Dictionary serverInfo = loopbackConfiguration(server.port());
    Dictionary mine = {
        {"TimestampOfLastEvent", "0"}, {"LogLevel", 2}, {"AgentVersion", "1.0"}, {"CommunicationType", 1}};
};

}  // namespace sentrova::testing
