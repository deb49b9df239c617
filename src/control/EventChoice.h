// Which events the commands `events` and `watch` show, and how.

#pragma once

#include "collection/EventSelection.h"
#include "control/Console.h"
#include "control/EventWriter.h"
#include "foundation/value/Value.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

namespace sentrova::control {

struct EventChoice {
    // As "EventsToRead". Absent: all types.
    std::optional<std::string> select;
    std::optional<std::string> user;
    // The values of "DomainName" and "Source Workstation".
    std::optional<std::string> domain;
    std::optional<std::string> host;
    // Seconds since 1970: since <= record_time < until.
    std::optional<std::int64_t> since;
    std::optional<std::int64_t> until;
    // Shows records that the rules leave out too.
    bool excluded = false;
    std::string format = "json";

    // Declares the options that both commands have.
    void addTo(CLI::App& command);

    EventSelection selection() const { return EventSelection(EventSelection::split(select)); }
    bool keeps(const Dictionary& event) const;

    // `isLive` shows each event at once.
    std::unique_ptr<EventWriter> writer(const Console& console, bool isLive) const;
    // Tells names of `select` that nothing has, where a person reads standard error. A script gets no line for what is
    // no error.
    void tellUnknownNames(Console& console) const;
};

}  // namespace sentrova::control
