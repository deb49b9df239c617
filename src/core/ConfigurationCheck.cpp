#include "core/ConfigurationCheck.h"

#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "foundation/formats/PropertyList.h"
#include "foundation/run/Current.h"
#include "foundation/value/Text.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <numeric>
#include <set>
#include <utility>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("ConfigurationCheck");

constexpr const char* kConnectionFails = "requests over this connection fail, and the next connection is tried";
constexpr const char* kSelectsNothing = "it selects nothing";

// A value as a message shows it: on one line and shortened.
std::string shown(const Value& value) {
    constexpr std::size_t kLongest = 60;
    if (!value.string() && !value.isNumber()) {
        return value.isNull() ? "nothing" : "a value of another kind";
    }
    auto text = value.description();
    if (text.size() > kLongest) {
        auto end = kLongest;
        // Does not cut a character of several bytes.
        while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80) {
            --end;
        }
        text.resize(end);
        text += "...";
    }
    std::ranges::replace_if(text, [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
    return value.string() ? fmt::format("\"{}\"", text) : text;
}

std::string wrong(const Value& value, const char* problem) {
    return value.isNull() ? "missing" : fmt::format("{} {}", shown(value), problem);
}

// The value of a number, or of a text that is one number and nothing else.
std::optional<double> numberIn(const Value& value) {
    if (const auto* text = value.string()) {
        return wholeReal(*text);
    }
    return value.isNumber() ? std::optional(value.doubleValue()) : std::nullopt;
}

// Whether the value names a host: it is not missing, blank or "-".
bool isName(const Value& value) {
    const auto* text = value.string();
    return text ? text->find_first_not_of(" \t") != std::string::npos && *text != GlobalConstants::NO_NAT_SERVER
                : value.isNumber();
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n";
    const auto begin = text.find_first_not_of(kBlanks);
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

bool isSameLetter(char left, char right) {
    return std::tolower(static_cast<unsigned char>(left)) == std::tolower(static_cast<unsigned char>(right));
}

bool isSameText(std::string_view left, std::string_view right) {
    return std::ranges::equal(left, right, isSameLetter);
}

// The edit distance: how many letters must be added, removed or exchanged to turn one text into the other. Ignores
// case.
std::size_t distance(std::string_view left, std::string_view right) {
    std::vector<std::size_t> row(right.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t i = 0; i < left.size(); ++i) {
        auto diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < right.size(); ++j) {
            const auto exchanged = diagonal + (isSameLetter(left[i], right[j]) ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({row[j + 1] + 1, row[j] + 1, exchanged});
        }
    }
    return row.back();
}

// The known name that was probably meant. Empty if no name is similar.
std::string_view nearest(std::string_view name, std::span<const std::string_view> known) {
    constexpr std::size_t kLongestName = 40;
    constexpr std::size_t kNear = 3;
    if (name.size() > kLongestName || known.empty()) {
        return {};
    }
    const auto best = *std::ranges::min_element(known, {}, [name](auto each) { return distance(name, each); });
    return distance(name, best) <= kNear ? best : std::string_view();
}

class Check {
  public:
    Check(const ConfigurationFiles& files, std::span<const std::string_view> knownEvents)
        : files_(files), server_(files.serverInfo.content), knownEvents_(knownEvents) {}

    std::vector<ConfigurationFinding> run() && {
        checkServerInfo();
        checkMyConfigurations();
        checkSchedules();
        return std::move(findings_);
    }

  private:
    void add(std::string_view file, std::optional<std::string> key, std::string problem, std::string instead) {
        findings_.push_back({std::string(file), std::move(key), std::move(problem), std::move(instead)});
    }
    void add(std::string_view key, std::string problem, std::string instead) {
        add(GlobalConstants::SERVER_INFO_FILE, std::string(key), std::move(problem), std::move(instead));
    }

    // Returns whether the content can be checked; otherwise adds a finding. A missing file is a finding only if the
    // caller passes `isEmpty`.
    bool isUsable(std::string_view name, const ConfigurationFile& file, bool isEmpty, const char* instead) {
        using State = ConfigurationFile::State;
        if (file.state == State::damaged) {
            add(name, std::nullopt, fmt::format("damaged: {}", file.reason), instead);
        } else if (file.state == State::unreadable) {
            add(name, std::nullopt, fmt::format("not readable: {}", file.reason),
                fmt::format("what was read before is kept; at the start, {}", instead));
        } else if (isEmpty) {
            add(name, std::nullopt, "missing or empty", instead);
        } else {
            return true;
        }
        return false;
    }

    void checkServerInfo() {
        // The agent itself writes these two keys into a new file.
        const bool isEmpty = std::ranges::all_of(server_, [](const auto& entry) {
            return entry.key == GlobalConstants::DOMAIN_NAME || entry.key == GlobalConstants::AGENT_NAME;
        });
        if (!isUsable(GlobalConstants::SERVER_INFO_FILE, files_.serverInfo, isEmpty,
                      "every setting counts as missing: no server is known, and nothing is collected")) {
            return;
        }
        checkAddresses();
        if (server_[GlobalConstants::IS_ENABLED].isNull()) {
            add(GlobalConstants::IS_ENABLED, "missing", "the agent counts as disabled and collects nothing");
        }
        checkEvents();
        if (const auto& value = server_[GlobalConstants::NUMBER_OF_EVENTS]; value.integerValue() < 1) {
            add(GlobalConstants::NUMBER_OF_EVENTS, wrong(value, "is below 1"),
                "each event is sent in a separate file and request");
        }
        if (const auto& value = server_[GlobalConstants::MAX_DATA_SIZE]; value.integerValue() < 1) {
            add(GlobalConstants::MAX_DATA_SIZE, wrong(value, "is below 1"),
                "the spool counts as full, and collection stops at the first check of its size");
        }
        for (const auto key : {GlobalConstants::FETCH_INTERVAL, GlobalConstants::SYNCTIME}) {
            checkInterval(key);
        }
        checkRecentTime();
    }

    void checkAddresses() {
        const bool hasRelay = isName(server_[GlobalConstants::NAT_SERVER]);
        const bool hasHost = hasRelay || isName(server_[GlobalConstants::SERVERFQDN]) ||
                             isName(server_[GlobalConstants::SERVERIP]) || isName(server_[GlobalConstants::SERVERNAME]);
        bool hasConnection = checkConnection(GlobalConstants::SERVER_PORT, GlobalConstants::PROTOCOL);
        hasConnection |= checkConnection(GlobalConstants::AGENT_PORT, GlobalConstants::AGENT_PROTOCOL);
        hasConnection |= hasRelay && checkConnection(GlobalConstants::NAT_PORT, GlobalConstants::NAT_PROTOCOL);
        if (!hasHost || !hasConnection) {
            add(GlobalConstants::SERVERFQDN,
                hasHost ? "no connection to the server has a port and a protocol"
                        : "no server is named, neither here nor in ServerIP, ServerName or NATServerName",
                "no request can be sent, and nothing is collected before a server has answered");
        }
    }

    // Whether the connection is configured: at least one of the two keys is present.
    bool checkConnection(std::string_view portKey, std::string_view protocolKey) {
        const auto& port = server_[portKey];
        const auto& protocol = server_[protocolKey];
        if (port.isNull() && protocol.isNull()) {
            return false;
        }
        if (const auto number = port.integerValue(); number < 1 || number > 65535) {
            add(portKey, wrong(port, "is not a port from 1 to 65535"), kConnectionFails);
        }
        const auto* text = protocol.string();
        if (!text || (!isSameText(*text, "http") && !isSameText(*text, "https"))) {
            add(protocolKey, wrong(protocol, "is neither http nor https"), kConnectionFails);
        }
        return true;
    }

    void checkEvents() {
        constexpr std::size_t kMostTold = 20;
        const auto& value = server_[GlobalConstants::EVENTS_TO_READ];
        if (value.isNull()) {
            return;
        }
        if (!value.string() && !value.isNumber()) {
            add(GlobalConstants::EVENTS_TO_READ, wrong(value, "is not a list of names"), "every event is collected");
            return;
        }
        const auto text = value.description();
        if (text.empty()) {
            add(GlobalConstants::EVENTS_TO_READ, "the list is empty", "no event is collected");
            return;
        }
        std::set<std::string_view> unknown;
        for (std::size_t begin = 0; begin <= text.size();) {
            const auto end = std::min(text.find(',', begin), text.size());
            const auto name = std::string_view(text).substr(begin, end - begin);
            begin = end + 1;
            if (isKnown(name) || !unknown.insert(name).second) {
                continue;
            }
            if (unknown.size() > kMostTold) {
                add(GlobalConstants::EVENTS_TO_READ, "more names are unknown", "they select nothing");
                return;
            }
            add(GlobalConstants::EVENTS_TO_READ, problemOf(name), kSelectsNothing);
        }
    }

    bool isKnown(std::string_view name) const { return std::ranges::find(knownEvents_, name) != knownEvents_.end(); }

    std::string problemOf(std::string_view name) const {
        const auto bare = trimmed(name);
        if (bare.empty()) {
            return "a name is empty";
        }
        if (isKnown(bare)) {
            return fmt::format("{} has blanks around it", shown(name));
        }
        const auto meant = nearest(bare, knownEvents_);
        return meant.empty() ? fmt::format("{} is not a known event", shown(name))
                             : fmt::format("{} is not a known event (the nearest is {})", shown(name), meant);
    }

    // A missing interval is no mistake. A text that is not a number is read as the number at its start.
    void checkInterval(std::string_view key) {
        constexpr std::int64_t kTakenInstead = 60;
        const auto& value = server_[key];
        const auto number = numberIn(value);
        const bool isPositive = number && *number >= 1;
        if (!value.isNull() && !isPositive) {
            const auto taken = value.integerValue();
            add(key, wrong(value, "is not a positive number"),
                fmt::format("{} seconds are used", taken < 1 ? kTakenInstead : taken));
        }
    }

    // The server's time is used only if no time is stored.
    void checkRecentTime() {
        using State = ConfigurationFile::State;
        const auto& value = server_[GlobalConstants::RECENT_EVENT_TIME_MILLIS];
        const auto state = files_.myConfigurations.state;
        if (!value.isNull() && (state == State::missing || state == State::damaged)) {
            add(GlobalConstants::RECENT_EVENT_TIME_MILLIS,
                fmt::format("{} overrides the stored time, since {} is {}", shown(value),
                            GlobalConstants::MY_CONFIGURATIONS_FILE, state == State::missing ? "missing" : "damaged"),
                fmt::format("no event up to {} is read", value.integerValue()));
        }
    }

    void checkMyConfigurations() {
        if (!isUsable(GlobalConstants::MY_CONFIGURATIONS_FILE, files_.myConfigurations, false,
                      "every setting counts as missing: LogLevel is 0, and the agent has no identity")) {
            return;
        }
        const auto& mine = files_.myConfigurations.content;
        const auto checkNumber = [&](std::string_view key, const char* consequence) {
            if (const auto& value = mine[key]; !value.isNull() && !numberIn(value)) {
                add(GlobalConstants::MY_CONFIGURATIONS_FILE, std::string(key), wrong(value, "is not a number"),
                    fmt::format("{} is used{}", value.integerValue(), value.integerValue() == 0 ? consequence : ""));
            }
        };
        checkNumber(GlobalConstants::TIMESTAMP_LE, ", and every trail is read from its beginning");
        checkNumber(GlobalConstants::LOG_LEVEL, ", so only errors are logged");
        const auto& durable = mine[GlobalConstants::DURABLE_DELIVERY];
        if (!durable.isNull() && !durable.isNumber() && !durable.string()) {
            add(GlobalConstants::MY_CONFIGURATIONS_FILE, std::string(GlobalConstants::DURABLE_DELIVERY),
                wrong(durable, "is neither true nor false"), "events are not stored durably");
        }
    }

    void checkSchedules() {
        const auto& value = files_.schedules.content[GlobalConstants::SCHEDULE_TASKS];
        const auto* tasks = value.array();
        if (!isUsable(GlobalConstants::SCHEDULES_FILE, files_.schedules, !tasks || tasks->empty(),
                      "no task runs: no later synchronisation, no repeated pass over the trails, no check of the "
                      "spool's size")) {
            return;
        }
        for (std::size_t i = 0; i < tasks->size(); ++i) {
            const auto key = fmt::format("{}[{}].{}", GlobalConstants::SCHEDULE_TASKS, i, GlobalConstants::TASK_NAME);
            const auto* entry = (*tasks)[i].dictionary();
            if (!entry) {
                add(GlobalConstants::SCHEDULES_FILE, key, "the entry is not a dictionary", "it is left out");
                continue;
            }
            const auto& name = (*entry)[GlobalConstants::TASK_NAME];
            if (!name.string() || name.string()->empty()) {
                add(GlobalConstants::SCHEDULES_FILE, key, wrong(name, "is not a name"),
                    "the task runs, but cannot be stopped or re-timed, and its runs are not noted");
            }
        }
    }

    const ConfigurationFiles& files_;
    const Dictionary& server_;
    const std::span<const std::string_view> knownEvents_;
    std::vector<ConfigurationFinding> findings_;
};

}  // namespace

std::string ConfigurationFinding::text() const {
    return fmt::format("{}: {}{}; {}", file, key ? *key + ": " : "", problem, instead);
}

ConfigurationFile ConfigurationFile::at(FileSystem& files, const std::string& path) {
    const auto bytes = files.read(path);
    if (!bytes) {
        const bool isMissing = bytes.error().code == ENOENT;
        // A link that is not followed counts as damaged, because the agent replaces it.
        const auto state = bytes.error().code == ELOOP ? State::damaged : State::unreadable;
        return {isMissing ? State::missing : state, {}, isMissing ? "" : bytes.error().description};
    }
    auto parsed = PropertyList::parse(*bytes, Current<Encodings>::orNull());
    if (!parsed || !parsed->dictionary()) {
        return {State::damaged, {}, parsed ? "its root element is not a dictionary" : parsed.error().description};
    }
    return {State::read, *parsed->dictionary(), ""};
}

ConfigurationFiles ConfigurationFiles::in(FileSystem& files, const std::string& folder) {
    const auto at = [&](std::string_view name) {
        return ConfigurationFile::at(files, fmt::format("{}/{}", folder, name));
    };
    return {at(GlobalConstants::SERVER_INFO_FILE), at(GlobalConstants::MY_CONFIGURATIONS_FILE),
            at(GlobalConstants::SCHEDULES_FILE)};
}

std::vector<ConfigurationFinding> checkConfiguration(const ConfigurationFiles& files,
                                                     std::span<const std::string_view> knownEvents) {
    return Check(files, knownEvents).run();
}

void ConfigurationReport::report(std::vector<ConfigurationFinding> findings) {
    MutexLock lock(mutex_);
    for (const auto& finding : findings) {
        if (std::ranges::find(known_, finding) == known_.end()) {
            kLog.error("{}", finding.text());
        }
    }
    known_ = std::move(findings);
}

}  // namespace sentrova
