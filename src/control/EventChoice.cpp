#include "control/EventChoice.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

// 0 if the terminal does not tell.
std::size_t terminalWidth() {
    winsize size{};
    return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

}  // namespace

void EventChoice::addTo(CLI::App& command) {
    command.add_option("--select", select, "Event names, separated by commas, as in EventsToRead (default: all)")
        ->type_name("NAMES");
    command.add_option("--user", user, "Only events with this UserName")->type_name("USER");
    command.add_option("--domain", domain, "The events' DomainName (default: absent)")->type_name("DOMAIN");
    command.add_option("--host", host, "The events' Source Workstation (default: absent)")->type_name("HOST");
    command.add_flag("--excluded", excluded,
                     "Show selected records that are not reported too, with the reason under Excluded");
    command.add_option("--format", format, "json: a line per event as in the spool; table; csv (default: json)")
        ->check(CLI::IsMember(std::set<std::string>{"json", "table", "csv"}))
        ->type_name("FORMAT");
}

bool EventChoice::keeps(const Dictionary& event) const {
    if (since || until) {
        const auto time = event["record_time"].integerValue();
        if ((since && time < *since) || (until && time >= *until)) {
            return false;
        }
    }
    if (user) {
        const auto* const name = event["UserName"].string();
        return name && *name == *user;
    }
    return true;
}

std::unique_ptr<EventWriter> EventChoice::writer(const Console& console, bool isLive) const {
    if (format == "csv") {
        return EventWriter::csv(excluded);
    }
    if (format == "table") {
        return EventWriter::table({.isLive = isLive,
                                   .withExcluded = excluded,
                                   .width = console.isTerminal() ? terminalWidth() : std::size_t{0}});
    }
    return EventWriter::json();
}

void EventChoice::tellUnknownNames(Console& console) const {
    if (!console.isErrorTerminal()) {
        return;
    }
    const auto known = EventSelection::knownNames();
    for (const auto& name : EventSelection::split(select).value_or(std::vector<std::string>())) {
        if (std::ranges::find(known, name) == known.end()) {
            console.problem(fmt::format("no event is named \"{}\"; the names are: {}", name, fmt::join(known, ", ")));
        }
    }
}

}  // namespace sentrova::control
