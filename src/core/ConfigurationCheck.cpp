#include "core/ConfigurationCheck.h"

#include "core/ConfigurationError.h"
#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "foundation/formats/PropertyList.h"
#include "foundation/run/Current.h"
#include "foundation/value/Text.h"

#include <algorithm>
#include <array>
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
constexpr const char* kNameFails = "requests to this name fail, and the next name is tried";
constexpr const char* kSelectsNothing = "it selects nothing";
constexpr const char* kDoesNotRun = "the task does not run";

// The keys that a file may have. `Serverinfo.plist` may also have those that a sync adds to the file's content: a
// server may answer with what it was sent.
constexpr std::array kServerInfoKeys = {
    GlobalConstants::AGENT_GUID,        GlobalConstants::DOMAIN_ID,
    GlobalConstants::DOMAIN_NAME,       GlobalConstants::AGENT_NAME,
    GlobalConstants::AGENT_UID,         GlobalConstants::ORG_ACCESS_KEY,
    GlobalConstants::SERVERFQDN,        GlobalConstants::SERVERIP,
    GlobalConstants::SERVERNAME,        GlobalConstants::SERVER_PORT,
    GlobalConstants::PROTOCOL,          GlobalConstants::AGENT_PORT,
    GlobalConstants::AGENT_PROTOCOL,    GlobalConstants::NAT_SERVER,
    GlobalConstants::NAT_PORT,          GlobalConstants::NAT_PROTOCOL,
    GlobalConstants::IS_ENABLED,        GlobalConstants::REALTIME,
    GlobalConstants::EVENTS_TO_READ,    GlobalConstants::NUMBER_OF_EVENTS,
    GlobalConstants::MAX_DATA_SIZE,     GlobalConstants::FETCH_INTERVAL,
    GlobalConstants::SYNCTIME,          GlobalConstants::AGENT_AUTHENTICATION_ID,
    GlobalConstants::TIMESTAMP_LE,      GlobalConstants::RECENT_EVENT_TIME_MILLIS,
    GlobalConstants::LASTSCHEDULERUNAT, GlobalConstants::COMMUNICATION_TYPE,
    std::string_view("Build"),
};
constexpr std::array kMyConfigurationsKeys = {
    GlobalConstants::TIMESTAMP_LE,  GlobalConstants::DURABLE_DELIVERY,   GlobalConstants::LOG_LEVEL,
    GlobalConstants::AGENT_VERSION, GlobalConstants::COMMUNICATION_TYPE, GlobalConstants::AGENT_AUTHENTICATION_ID,
};
constexpr std::array kSchedulesKeys = {GlobalConstants::SCHEDULE_TASKS};
constexpr std::array kTaskKeys = {
    GlobalConstants::TASK_NAME,
    GlobalConstants::CLASS_NAME,
    GlobalConstants::SELECTOR,
    GlobalConstants::INTERVAL_SECONDS,
    GlobalConstants::RUN_AT,
    GlobalConstants::REPEAT,
    GlobalConstants::TASK_STATUS,
    GlobalConstants::LAST_SCHEDULE_TIME,
    GlobalConstants::LAST_SCHEDULE_TIME_IN_MILLIS,
};

std::string withoutControls(std::string text) {
    std::ranges::replace_if(text, [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
    return text;
}

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
    text = withoutControls(std::move(text));
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

// The edit distance: how many letters must be added, removed or exchanged, or neighbours swapped, to turn one text into
// the other. Ignores case.
std::size_t distance(std::string_view left, std::string_view right) {
    std::vector<std::size_t> beforeLast;
    std::vector<std::size_t> last(right.size() + 1);
    std::iota(last.begin(), last.end(), 0U);
    for (std::size_t i = 0; i < left.size(); ++i) {
        std::vector<std::size_t> row(right.size() + 1, i + 1);
        for (std::size_t j = 0; j < right.size(); ++j) {
            const auto exchanged = last[j] + (isSameLetter(left[i], right[j]) ? 0 : 1);
            row[j + 1] = std::min({last[j + 1] + 1, row[j] + 1, exchanged});
            if (i > 0 && j > 0 && isSameLetter(left[i], right[j - 1]) && isSameLetter(left[i - 1], right[j])) {
                row[j + 1] = std::min(row[j + 1], beforeLast[j - 1] + 1);
            }
        }
        beforeLast = std::exchange(last, std::move(row));
    }
    return last.back();
}

constexpr std::size_t kNear = 3;

// The known name that was probably meant. Empty if no name is similar: at most `near` letters differ.
template <class Names>
std::string_view nearest(std::string_view name, const Names& known, std::size_t near = kNear) {
    constexpr std::size_t kLongestName = 40;
    if (name.size() > kLongestName || known.empty()) {
        return {};
    }
    const std::string_view best =
        *std::ranges::min_element(known, {}, [name](const auto& each) { return distance(name, each); });
    return distance(name, best) <= near ? best : std::string_view();
}

// " (the nearest is NAME)", or nothing.
std::string hint(std::string_view nearestName) {
    return nearestName.empty() ? "" : fmt::format(" (the nearest is {})", nearestName);
}

std::string keyOfTask(std::size_t index, std::string_view key) {
    return fmt::format("{}[{}].{}", GlobalConstants::SCHEDULE_TASKS, index, key);
}

class Check {
  public:
    Check(const ConfigurationFiles& files, const ConfigurationRules& rules)
        : files_(files), server_(files.serverInfo.content), rules_(rules) {}

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
    void addToTask(std::size_t index, std::string_view key, std::string problem, std::string instead) {
        add(GlobalConstants::SCHEDULES_FILE, keyOfTask(index, key), std::move(problem), std::move(instead));
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
        for (const auto key : {GlobalConstants::SERVERFQDN, GlobalConstants::SERVERIP, GlobalConstants::SERVERNAME,
                               GlobalConstants::NAT_SERVER}) {
            checkHostName(key);
        }
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

    void checkHostName(std::string_view key) {
        const auto& value = server_[key];
        const auto name = value.description();
        // A colon would begin the port, except within the brackets of an IPv6 address.
        const bool hasPort = name.find(':') != std::string::npos && !name.starts_with('[');
        if (isName(value) && (!isHostName(name) || hasPort)) {
            add(key, wrong(value, "is not a plain host name"), kNameFails);
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

    bool isKnown(std::string_view name) const { return std::ranges::find(rules_.events, name) != rules_.events.end(); }

    std::string problemOf(std::string_view name) const {
        const auto bare = trimmed(name);
        if (bare.empty()) {
            return "a name is empty";
        }
        if (isKnown(bare)) {
            return fmt::format("{} has blanks around it", shown(name));
        }
        return fmt::format("{} is not a known event{}", shown(name), hint(nearest(bare, rules_.events)));
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
        // The pass phrase is unknown while that file cannot be read.
        if (files_.serverInfo.state != ConfigurationFile::State::unreadable) {
            checkIdentity();
        }
    }

    void checkIdentity() {
        const auto addProblem = [this](const std::string& problem, const char* instead) {
            add(GlobalConstants::MY_CONFIGURATIONS_FILE, std::string(GlobalConstants::AGENT_AUTHENTICATION_ID), problem,
                instead);
        };
        const auto& mine = files_.myConfigurations.content;
        const auto agentUID = ServerSettings::from(server_).agentUID;
        try {
            const auto identity = AgentSettings::identityIn(
                mine, agentUID, std::string(GlobalConstants::MY_CONFIGURATIONS_FILE), rules_.decrypt);
            if (!mine[GlobalConstants::AGENT_AUTHENTICATION_ID].isNull() && !identity) {
                addProblem(agentUID ? fmt::format("the stored identity cannot be decrypted with {} of {}",
                                                  GlobalConstants::AGENT_UID, GlobalConstants::SERVER_INFO_FILE)
                                    : fmt::format("the stored identity cannot be decrypted, and {} has no {}",
                                                  GlobalConstants::SERVER_INFO_FILE, GlobalConstants::AGENT_UID),
                           "the agent has no identity until the server issues one");
            }
        } catch (const ConfigurationError&) {
            addProblem(
                fmt::format("fewer than {} characters, which cannot hold an identity", AgentSettings::kIdentityPrefix),
                "the agent does not start (status 78)");
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
            if (const auto* entry = (*tasks)[i].dictionary()) {
                checkTaskName(*tasks, i);
                checkMethod(*entry, i);
                checkTiming(*entry, i);
            } else {
                addToTask(i, GlobalConstants::TASK_NAME, "the entry is not a dictionary", "it is left out");
            }
        }
    }

    void checkTaskName(const Array& tasks, std::size_t index) {
        const auto nameOf = [](const Value& task) {
            return task.dictionary() ? (*task.dictionary())[GlobalConstants::TASK_NAME] : Value();
        };
        const auto name = nameOf(tasks[index]);
        if (!name.string() || name.string()->empty()) {
            addToTask(index, GlobalConstants::TASK_NAME, wrong(name, "is not a name"),
                      "the task runs, but cannot be stopped or re-timed, and its runs are not noted");
        } else if (std::any_of(tasks.begin() + static_cast<std::ptrdiff_t>(index) + 1, tasks.end(),
                               [&](const Value& later) { return nameOf(later) == name; })) {
            addToTask(index, GlobalConstants::TASK_NAME,
                      fmt::format("{} is the name of a later entry too", shown(name)),
                      "only the last of these entries is scheduled");
        }
    }

    void checkMethod(const Dictionary& entry, std::size_t index) {
        const auto& className = entry[GlobalConstants::CLASS_NAME];
        const auto methods = rules_.tasks.find(className.description());
        if (methods == rules_.tasks.end()) {
            std::vector<std::string_view> classes;
            std::ranges::transform(rules_.tasks, std::back_inserter(classes),
                                   [](const auto& each) { return std::string_view(each.first); });
            addToTask(index, GlobalConstants::CLASS_NAME,
                      wrong(className, "is not a known class") + hint(nearest(className.description(), classes)),
                      kDoesNotRun);
            return;
        }
        const auto& selector = entry[GlobalConstants::SELECTOR];
        if (std::ranges::find(methods->second, selector.description()) == methods->second.end()) {
            addToTask(index, GlobalConstants::SELECTOR,
                      wrong(selector, "is not a method of the class") +
                          hint(nearest(selector.description(), methods->second)),
                      kDoesNotRun);
        }
    }

    // A task that runs once at a time of day needs no interval.
    void checkTiming(const Dictionary& entry, std::size_t index) {
        const auto& runAt = entry[GlobalConstants::RUN_AT];
        const bool isDaily = !runAt.isNull();
        if (isDaily && !rules_.isTimeOfDay(runAt.description())) {
            addToTask(index, GlobalConstants::RUN_AT, wrong(runAt, "is not a time of day (HH:mm:ss)"), kDoesNotRun);
        }
        const auto& interval = entry[GlobalConstants::INTERVAL_SECONDS];
        const bool isNeeded = !isDaily || entry[GlobalConstants::REPEAT].boolValue();
        // Less than a microsecond is rounded to 0.
        if (isNeeded && !(interval.doubleValue() >= 0.5e-6)) {
            addToTask(index, GlobalConstants::INTERVAL_SECONDS, wrong(interval, "is not a number above 0"),
                      "60 seconds are used");
        }
        const auto& status = entry[GlobalConstants::TASK_STATUS];
        const bool isMeant = status.isNull() || distance(status.description(), GlobalConstants::TASK_ENABLED) < kNear;
        if (!isDaily && isMeant && status != Value(GlobalConstants::TASK_ENABLED)) {
            addToTask(index, GlobalConstants::TASK_STATUS, wrong(status, "is not the word Enable"), kDoesNotRun);
        }
    }

    const ConfigurationFiles& files_;
    const Dictionary& server_;
    const ConfigurationRules& rules_;
    std::vector<ConfigurationFinding> findings_;
};

// `prefix` comes before the keys in the findings.
template <class Keys>
std::vector<ConfigurationFinding> misspelledKeys(std::string_view file, const Dictionary& content, const Keys& known,
                                                 const std::string& prefix) {
    std::vector<ConfigurationFinding> findings;
    for (const auto& [key, value] : content) {
        // Of a short key, fewer letters may differ: "Host" is not meant to be "Port".
        const auto near = std::min(kNear, key.size() / 3);
        const auto meant =
            std::ranges::find(known, key) == known.end() ? nearest(key, known, near) : std::string_view();
        if (!meant.empty()) {
            findings.push_back({std::string(file), prefix + withoutControls(key), "unknown key" + hint(meant),
                                content.contains(meant)
                                    ? fmt::format("it is ignored; {} is set too", meant)
                                    : fmt::format("it is ignored, and {} counts as missing", meant)});
        }
    }
    return findings;
}

}  // namespace

std::string ConfigurationFinding::text() const {
    return withoutControls(fmt::format("{}: {}{}; {}", file, key ? *key + ": " : "", problem, instead));
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

std::vector<ConfigurationFinding> checkConfiguration(const ConfigurationFiles& files, const ConfigurationRules& rules) {
    return Check(files, rules).run();
}

std::vector<ConfigurationFinding> findMisspelledKeys(const ConfigurationFiles& files) {
    std::vector<ConfigurationFinding> findings;
    const auto addAll = [&](std::string_view file, const Dictionary& content, const auto& known,
                            const std::string& prefix = "") {
        std::ranges::move(misspelledKeys(file, content, known, prefix), std::back_inserter(findings));
    };
    addAll(GlobalConstants::SERVER_INFO_FILE, files.serverInfo.content, kServerInfoKeys);
    addAll(GlobalConstants::MY_CONFIGURATIONS_FILE, files.myConfigurations.content, kMyConfigurationsKeys);
    addAll(GlobalConstants::SCHEDULES_FILE, files.schedules.content, kSchedulesKeys);
    const auto* tasks = files.schedules.content[GlobalConstants::SCHEDULE_TASKS].array();
    for (std::size_t i = 0; tasks && i < tasks->size(); ++i) {
        if (const auto* entry = (*tasks)[i].dictionary()) {
            addAll(GlobalConstants::SCHEDULES_FILE, *entry, kTaskKeys, keyOfTask(i, ""));
        }
    }
    return findings;
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
