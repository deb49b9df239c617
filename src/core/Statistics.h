// What the agent has done since its start: counts, and the times of the newest records and of the server's answers.

#pragma once

#include "foundation/run/Mutex.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace sentrova {

// Safe from any thread. A reader of a million records a second reports them in portions.
class Statistics {
  public:
    // The time of a record, of an answer or of a failure: whole seconds since 1970.
    using Seconds = std::int64_t;

    struct Reading {
        // Whole records, the events that the rules let through, and those that the rules left out.
        std::uint64_t records = 0;
        std::uint64_t collected = 0;
        std::uint64_t excluded = 0;

        friend bool operator==(const Reading&, const Reading&) = default;
    };
    // Adds what was read. `newest` is the time of the newest of these records; absent if none has a time.
    void addReading(const Reading& more, std::optional<Seconds> newest) EXCLUDES(mutex_);

    // Whether a reader of the live device is at work, and how many records the device has dropped.
    void setDeviceOpen(bool isOpen) EXCLUDES(mutex_);
    void addDrops(std::uint64_t records) EXCLUDES(mutex_);

    // A delivery has begun; or ended, whatever its outcome.
    void deliveryBegan() EXCLUDES(mutex_);
    void deliveryEnded() EXCLUDES(mutex_);
    // A delivery was confirmed. `newest` is the time of the newest record in it.
    void addDelivered(std::uint64_t events, std::optional<Seconds> newest) EXCLUDES(mutex_);

    // A request succeeded at the address (scheme, host and port).
    void requestSucceeded(const std::string& address, Seconds now) EXCLUDES(mutex_);
    // A request failed. `kind` is the failure's kind, as docs/sentrovactl.md lists them; `text` says what happened.
    // `isAnswered` tells whether the server gave an answer.
    void requestFailed(std::string_view kind, std::string text, const std::string& address, bool isAnswered,
                       Seconds now) EXCLUDES(mutex_);

    // Takes over the times of an earlier run, as long as this run has no own ones.
    void continueFrom(std::optional<Seconds> lastRead, std::optional<Seconds> lastDelivered) EXCLUDES(mutex_);

    struct Failure {
        Seconds time = 0;
        std::string text;
    };
    struct Server {
        // Absent before the first request has ended.
        std::optional<bool> isReachable;
        // The address of the last request that ended: scheme, host and port.
        std::string address;
        std::optional<Seconds> lastContact;
        std::optional<Failure> lastFailure;
        // The last request succeeded. Absent like isReachable.
        std::optional<bool> hasSucceeded;
    };
    struct Snapshot {
        Reading read;
        std::uint64_t delivered = 0;
        std::uint64_t inFlight = 0;
        std::uint64_t drops = 0;
        bool isDeviceOpen = false;
        std::map<std::string, std::uint64_t, std::less<>> failures;
        std::optional<Seconds> lastRead;
        std::optional<Seconds> lastDelivered;
        Server server;
    };
    Snapshot snapshot() EXCLUDES(mutex_);

  private:
    Mutex mutex_;
    Snapshot counts_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
