#include "control/StatusReport.h"

#include "control/AgentProcess.h"
#include "control/AgentQuestion.h"
#include "control/StatusFormats.h"
#include "control/TimeArgument.h"
#include "core/Configuration.h"
#include "core/ConfigurationCheck.h"
#include "core/FileUtils.h"
#include "forwarding/SpoolFile.h"
#include "operations/ScheduleHandler.h"
#include "service/ConfigurationFindings.h"

#include <algorithm>
#include <limits>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

constexpr std::int64_t kBytesPerGigabyte = 1'000'000'000;
// Batches of a reachable server that wait longer than this are a problem.
constexpr std::int64_t kLongestWait = 3600;
// A starting agent first reads the trails, then the live device.
constexpr std::int64_t kStart = 600;

const Value& nothing() {
    static const Value kNothing;
    return kNothing;
}

std::optional<std::int64_t> numberIn(const Value& value) {
    return value.isNumber() ? std::optional(value.integerValue()) : std::nullopt;
}

Value valueOf(std::optional<std::int64_t> number) {
    return number ? Value(*number) : Value();
}

const char* nameOf(StatusReport::State state) {
    switch (state) {
        case StatusReport::State::healthy:
            return "healthy";
        case StatusReport::State::unhealthy:
            return "unhealthy";
        case StatusReport::State::notRunning:
            break;
    }
    return "not running";
}

std::string plural(std::int64_t count, std::string_view one, std::string_view many) {
    return fmt::format("{} {}", count, count == 1 ? one : many);
}

}  // namespace

const Value& StatusReport::known(std::string_view key, std::string_view inner) const {
    const auto* const dictionary = known_[key].dictionary();
    return dictionary ? (*dictionary)[inner] : nothing();
}

StatusReport StatusReport::of(const InstallationFolder& installation, FileSystem& files, std::int64_t now) {
    StatusReport report;
    report.now_ = now;
    const AgentQuestion question(installation, files);
    const auto process = AgentProcess::of(installation);
    std::optional<Dictionary> answer;
    if (process.isRunning()) {
        answer = question.ask(process);
        // An agent that has ended meanwhile is not running.
        if (answer || AgentProcess::of(installation).isRunning()) {
            report.process_ = process.processId().value_or(0);
        }
    }
    report.known_ = answer ? *answer : question.known().value_or(Dictionary());
    report.readFolders(installation, files);
    const bool hasAnswered = answer.has_value();
    report.judge(hasAnswered);
    for (const auto& finding : startFindingsIn(files, installation.conf())) {
        report.add(finding.text(),
                   "correct the file, or the server's settings; \"sentrovactl check\" tells all findings");
    }
    if (!report.isRunning()) {
        report.state_ = State::notRunning;
    } else {
        report.state_ = report.problems_.empty() ? State::healthy : State::unhealthy;
    }
    return report;
}

void StatusReport::readFolders(const InstallationFolder& installation, FileSystem& files) {
    const auto configuration = ConfigurationFiles::in(files, installation.conf());
    const auto server = ServerSettings::from(configuration.serverInfo.content);
    isRealtime_ = server.isRealTime;
    if (__builtin_mul_overflow(server.eventDataSize, kBytesPerGigabyte, &spool_.limit)) {
        spool_.limit = std::numeric_limits<std::int64_t>::max();
    }
    spool_.occupied = FileUtils::getFoldersize(installation.spool());
    for (const auto& name : files.names(installation.spool()).optional().value_or(std::vector<std::string>())) {
        const auto status = files.linkStatus(installation.spool() + "/" + name);
        if (name.starts_with('.') || !status || !status->isRegular) {
            continue;
        }
        if (SpoolFile::isKept(name)) {
            ++spool_.kept;
            continue;
        }
        ++spool_.files;
        spool_.bytes += static_cast<std::int64_t>(status->size);
        const auto time = epochSeconds(status->modificationDate);
        spool_.oldest = std::min(spool_.oldest.value_or(time), time);
    }
    const auto entries = configuration.schedules.content[GlobalConstants::SCHEDULE_TASKS];
    for (const auto& value : entries.array() ? *entries.array() : Array()) {
        const auto* const entry = value.dictionary();
        const auto* const name = entry ? (*entry)[GlobalConstants::TASK_NAME].string() : nullptr;
        if (name && std::ranges::find(tasks_, *name, &Task::name) == tasks_.end()) {
            const auto last = (*entry)[ScheduleHandler::kLastScheduleTimeInMillis].integerValue();
            tasks_.push_back({.name = *name,
                              .lastRun = last > 0 ? std::optional(last) : std::nullopt,
                              .nextRun = isRunning() ? numberIn(known("next_runs", *name)) : std::nullopt});
        }
    }
}

void StatusReport::judge(bool hasAnswered) {
    if (!isRunning()) {
        add("The agent is not running", "start it through the service manager, and read the newest Config log");
    } else if (!hasAnswered) {
        add(fmt::format("The agent{} does not answer", *process_ > 0 ? fmt::format(" (process {})", *process_) : ""),
            "restart it through the service manager; the logs tell what it did last");
    } else {
        judgeAgent();
        judgeServer();
    }
    judgeSpool();
}

void StatusReport::judgeAgent() {
    const bool isStarting = known("phase") == Value("starting");
    if (isStarting) {
        const auto since = numberIn(known("sync", "under_way_since"));
        add(fmt::format("The first sync has had no answer since {}; nothing is collected before",
                        timeText(since.value_or(known("since").integerValue()))),
            "ask \"sentrovactl probe\" which of the server's addresses answer");
    }
    if (const auto* const problem = known("audit_problem").string()) {
        add(*problem, "switch auditing on; without it the system records no logon");
    }
    if (const auto* const reason = known("collection_refused").string();
        reason && !isStarting && !known("spool_limit_reached").boolValue()) {
        add(fmt::format("No event is collected: {}", *reason),
            "settings come from the server: change them there, then run \"sentrovactl sync\"");
    }
    const bool isReading = known("realtime", "reading").boolValue();
    if (isRealtime_ && !isReading && !isStarting && known("audit_problem").isNull() &&
        known("collection_refused").isNull() && now_ - known("since").integerValue() > kStart) {
        add("Realtime collection is on, but the audit device is not read", "see the newest Config log for the reason");
    }
    if (const auto drops = known("realtime", "dropped").integerValue(); drops > 0 && known("durable").isNull()) {
        add(fmt::format("The audit device has dropped {} since the agent's start", plural(drops, "record", "records")),
            "the trails still have them: \"sentrovactl replay\" reads the trails again, and the setting "
            "DurableDelivery prevents the loss");
    }
}

void StatusReport::judgeServer() {
    const auto& failure = known("server", "last_failure");
    const auto* const last = failure.dictionary();
    const std::string text = last ? (*last)["text"].description() : "no request has been answered";
    if (known("server", "reachable") == Value(false)) {
        add(fmt::format("The server is not reachable: {}", text),
            "events wait in the spool; ask \"sentrovactl probe\" which addresses answer");
    } else if (known("server", "succeeded") == Value(false)) {
        add(fmt::format("The server answers, but not with success: {}", text),
            "see the server's own log for the reason");
    }
    const auto* const round = known("sync", "last").dictionary();
    if (round && (*round)["outcome"] == Value("rejected")) {
        add(fmt::format("The answer to the last sync was not applied ({})", (*round)["text"].description()),
            "correct the server's answer, then run \"sentrovactl sync\"");
    }
}

void StatusReport::judgeSpool() {
    if ((spool_.limit > 0 && spool_.occupied >= spool_.limit) ||
        (isRunning() && known("spool_limit_reached").boolValue())) {
        add(fmt::format("The spool is full: {} of at most {}; collection has stopped", bytesText(spool_.occupied),
                        bytesText(spool_.limit)),
            "bring the server back so that the spool empties, or raise MaxEventDataSize");
    }
    if (const auto refused = known("durable", "refused").integerValue(); isRunning() && refused > 0) {
        add(fmt::format("The server refuses {}; the next attempt is at {}", plural(refused, "batch", "batches"),
                        timeOrNever(known("durable", "next_attempt"))),
            R"(see "sentrovactl spool list"; after a correction at the server, "sentrovactl spool retry --all")");
    } else if (spool_.oldest && *spool_.oldest < now_ - kLongestWait && isRunning() &&
               known("server", "succeeded").boolValue()) {
        add(fmt::format("A batch waits since {}", timeText(*spool_.oldest)),
            "see \"sentrovactl spool list\" and the newest Communication log");
    }
    if (spool_.kept > 0) {
        add(fmt::format("The spool keeps {} that the agent does not send", plural(spool_.kept, "file", "files")),
            R"(see "sentrovactl spool list" for the reason; "sentrovactl spool retry" sends them again)");
    }
}

Dictionary StatusReport::json() const {
    Array problems;
    for (const auto& [problem, remedy] : problems_) {
        problems.emplace_back(Dictionary{{"problem", problem}, {"remedy", remedy}});
    }
    Array tasks;
    for (const auto& task : tasks_) {
        tasks.emplace_back(
            Dictionary{{"name", task.name}, {"last_run", valueOf(task.lastRun)}, {"next_run", valueOf(task.nextRun)}});
    }
    const bool runs = isRunning();
    const auto ifRunning = [runs](const Value& value) { return runs ? value : Value(); };
    return {{"version", kVersion},
            {"state", nameOf(state_)},
            {"problems", std::move(problems)},
            {"running", runs},
            {"pid", runs && *process_ > 0 ? Value(*process_) : Value()},
            {"since", ifRunning(known("since"))},
            {"agent_version", known("agent_version")},
            {"memory", ifRunning(known("memory"))},
            {"auditing", ifRunning(known("auditing"))},
            {"realtime", Dictionary{{"on", isRealtime_}, {"dropped", ifRunning(known("realtime", "dropped"))}}},
            {"server", Dictionary{{"reachable", ifRunning(known("server", "reachable"))},
                                  {"address", known("server", "address")},
                                  {"last_contact", known("server", "last_contact")},
                                  {"last_failure", known("server", "last_failure")}}},
            {"last_read", known("last_read")},
            {"last_delivered", known("last_delivered")},
            {"spool", Dictionary{{"files", spool_.files},
                                 {"bytes", spool_.bytes},
                                 {"oldest", valueOf(spool_.oldest)},
                                 {"in_flight", runs ? known("in_flight").integerValue() : 0},
                                 {"limit", spool_.limit},
                                 {"kept", spool_.kept}}},
            {"tasks", std::move(tasks)},
            {"counts", ifRunning(known("counts"))},
            {"durable", ifRunning(known("durable"))},
            {"sync", ifRunning(known("sync"))}};
}

}  // namespace sentrova::control
