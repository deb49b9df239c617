#include "control/StatusFormats.h"

#include "control/TimeArgument.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

constexpr std::string_view kHealthy = "healthy";

const Value& inner(const Dictionary& status, std::string_view key, std::string_view innerKey) {
    static const Value kNothing;
    const auto* const dictionary = status[key].dictionary();
    return dictionary ? (*dictionary)[innerKey] : kNothing;
}

std::string yesOrNo(const Value& value, const char* yes, const char* no) {
    return value.isNull() ? "unknown" : value.boolValue() ? yes : no;
}

class TextForm {
  public:
    TextForm(const Dictionary& status, std::int64_t now, const Console& console)
        : status_(status), now_(now), console_(console) {}

    std::string make() && {
        addHeading();
        addAgent();
        addServer();
        addSpool();
        addCounts();
        addTasks();
        return std::move(text_);
    }

  private:
    void line(std::string_view name, const std::string& value) { text_ += fmt::format("{:<16}{}\n", name, value); }
    const Value& at(std::string_view key) const { return status_[key]; }
    const Value& at(std::string_view key, std::string_view innerKey) const { return inner(status_, key, innerKey); }

    void addHeading() {
        using Colour = Console::Colour;
        const auto& problems = *at("problems").array();
        if (at("state") == Value(kHealthy)) {
            text_ += console_.coloured(Colour::green, "Healthy") + "\n";
        } else {
            text_ += console_.coloured(Colour::red,
                                       fmt::format("{}: {} {}", at("running").boolValue() ? "Unhealthy" : "Not running",
                                                   problems.size(), problems.size() == 1 ? "problem" : "problems")) +
                     "\n";
        }
        for (const auto& problem : problems) {
            const auto& entry = *problem.dictionary();
            text_ += fmt::format("  - {}\n    What to do: {}.\n", entry["problem"].description(),
                                 entry["remedy"].description());
        }
        text_ += "\n";
    }

    void addAgent() {
        const auto version = at("agent_version").string() ? *at("agent_version").string() : "of unknown version";
        if (at("running").boolValue()) {
            std::string process = at("pid").isNull() ? "" : fmt::format(", process {}", at("pid").integerValue());
            if (at("since").isNumber()) {
                const auto since = at("since").integerValue();
                process += fmt::format(", since {} ({})", timeText(since),
                                       durationText(std::max<std::int64_t>(now_ - since, 0)));
            }
            line("Agent", version + process);
            line("Memory", at("memory").isNull() ? "unknown" : bytesText(at("memory").integerValue()));
            line("Auditing", yesOrNo(at("auditing"), "on", "off"));
        } else {
            line("Agent", version + ", not running");
        }
        const auto& dropped = at("realtime", "dropped");
        line("Realtime", std::string(at("realtime", "on").boolValue() ? "on" : "off") +
                             (dropped.isNull() ? "" : fmt::format(", {} records dropped", dropped.integerValue())));
        line("Last event",
             fmt::format("read {}, delivered {}", timeOrNever(at("last_read")), timeOrNever(at("last_delivered"))));
    }

    void addServer() {
        const auto& address = at("server", "address");
        std::string server = address.isNull() ? "no address used so far" : address.description();
        if (const auto& isReachable = at("server", "reachable"); !isReachable.isNull()) {
            server += isReachable.boolValue() ? ", reachable" : ", not reachable";
        }
        line("Server", fmt::format("{}, last contact {}", server, timeOrNever(at("server", "last_contact"))));
        if (const auto* const failure = at("server", "last_failure").dictionary()) {
            line("Last failure",
                 fmt::format("{}, {}", timeOrNever((*failure)["time"]), (*failure)["text"].description()));
        }
    }

    void addSpool() {
        const auto number = [this](std::string_view key) { return at("spool", key).integerValue(); };
        const auto& oldest = at("spool", "oldest");
        line("Spool", fmt::format("{} files, {}{}, {} in flight, limit {}", number("files"), bytesText(number("bytes")),
                                  oldest.isNull() ? "" : ", oldest " + timeText(oldest.integerValue()),
                                  number("in_flight"), bytesText(number("limit"))));
        if (const auto* const durable = at("durable").dictionary()) {
            const auto& next = (*durable)["next_attempt"];
            line("Durable mode",
                 fmt::format("journal {}, {} refused batches{}", bytesText((*durable)["journal_bytes"].integerValue()),
                             (*durable)["refused"].integerValue(),
                             next.isNull() ? "" : ", next attempt " + timeText(next.integerValue())));
        }
    }

    void addCounts() {
        if (const auto* const counts = at("counts").dictionary()) {
            const auto number = [counts](std::string_view key) { return (*counts)[key].integerValue(); };
            line("Since the start",
                 fmt::format("{} records read, {} events collected, {} excluded, {} delivered", number("records_read"),
                             number("events_collected"), number("events_excluded"), number("events_delivered")));
            std::string failures;
            for (const auto& [kind, count] : *(*counts)["failures"].dictionary()) {
                failures += fmt::format("{}{} {}", failures.empty() ? "" : ", ", count.integerValue(), kind);
            }
            line("Failed requests", failures.empty() ? "none" : failures);
        }
    }

    void addTasks() {
        for (const auto& value : *at("tasks").array()) {
            const auto& task = *value.dictionary();
            line("Task",
                 fmt::format("{}: last run {}, next run {}", task["name"].description(), timeOrNever(task["last_run"]),
                             task["next_run"].isNull() ? "unknown" : timeOrNever(task["next_run"])));
        }
    }

    const Dictionary& status_;
    const std::int64_t now_;
    const Console& console_;
    std::string text_;
};

// Adds metrics one after another. A metric without a value is left out.
class Metrics {
  public:
    void gauge(std::string_view name, std::string_view help, const Value& value) { add(name, "gauge", help, value); }
    void counter(std::string_view name, std::string_view help, const Value& value) {
        add(name, "counter", help, value);
    }
    // A counter with one value for each kind.
    void counters(std::string_view name, std::string_view help, const Dictionary& values) {
        if (!values.empty()) {
            begin(name, "counter", help);
        }
        for (const auto& [kind, value] : values) {
            text_ += fmt::format("sentrova_{}{{kind=\"{}\"}} {}\n", name, kind, value.integerValue());
        }
    }
    std::string text() && { return std::move(text_); }

  private:
    void begin(std::string_view name, std::string_view type, std::string_view help) {
        text_ += fmt::format("# HELP sentrova_{0} {1}\n# TYPE sentrova_{0} {2}\n", name, help, type);
    }
    void add(std::string_view name, std::string_view type, std::string_view help, const Value& value) {
        if (!value.isNull()) {
            begin(name, type, help);
            text_ += fmt::format("sentrova_{} {}\n", name, value.integerValue());
        }
    }

    std::string text_;
};

void addCounts(Metrics& metrics, const Dictionary& counts) {
    metrics.counter("records_read_total", "Audit records read since the agent's start.", counts["records_read"]);
    metrics.counter("events_collected_total", "Events collected since the agent's start.", counts["events_collected"]);
    metrics.counter("events_excluded_total", "Selected events that the rules left out since the agent's start.",
                    counts["events_excluded"]);
    metrics.counter("events_delivered_total", "Events confirmed by the server since the agent's start.",
                    counts["events_delivered"]);
    if (const auto* const failures = counts["failures"].dictionary()) {
        metrics.counters("request_failures_total", "Failed requests since the agent's start, by kind.", *failures);
    }
}

}  // namespace

std::string statusText(const Dictionary& status, std::int64_t now, const Console& console) {
    return TextForm(status, now, console).make();
}

std::string statusMetrics(const Dictionary& status) {
    const auto at = [&](std::string_view key, std::string_view innerKey) { return inner(status, key, innerKey); };
    const bool runs = status["running"].boolValue();
    Metrics metrics;
    metrics.gauge("up", "Whether the agent runs.", runs);
    metrics.gauge("healthy", "Whether the agent runs and nothing is wrong.", status["state"] == Value(kHealthy));
    metrics.gauge("problems", "Number of problems that the status names.", status["problems"].array()->size());
    metrics.gauge("start_time_seconds", "Start of the agent, in seconds since 1970.", status["since"]);
    metrics.gauge("resident_memory_bytes", "Resident memory of the agent.", status["memory"]);
    metrics.gauge("auditing", "Whether the system audits.", status["auditing"]);
    metrics.gauge("realtime", "Whether realtime collection is switched on.", at("realtime", "on"));
    metrics.counter("device_dropped_records_total", "Records that the audit device dropped since the agent's start.",
                    at("realtime", "dropped"));
    metrics.gauge("server_reachable", "Whether the server answered the last request.", at("server", "reachable"));
    metrics.gauge("server_last_contact_time_seconds", "Last answer of the server, in seconds since 1970.",
                  at("server", "last_contact"));
    metrics.gauge("last_read_record_time_seconds", "Time of the newest record read, in seconds since 1970.",
                  status["last_read"]);
    metrics.gauge("last_delivered_record_time_seconds", "Time of the newest record delivered, in seconds since 1970.",
                  status["last_delivered"]);
    metrics.gauge("spool_files", "Batches that wait in the spool.", at("spool", "files"));
    metrics.gauge("spool_bytes", "Size of these batches.", at("spool", "bytes"));
    metrics.gauge("spool_limit_bytes", "Size at which collection stops.", at("spool", "limit"));
    metrics.gauge("spool_oldest_time_seconds", "Time of the oldest waiting batch, in seconds since 1970.",
                  at("spool", "oldest"));
    metrics.gauge("spool_kept_files", "Files that the agent keeps and does not send.", at("spool", "kept"));
    metrics.gauge("deliveries_in_flight", "Deliveries without an answer so far.", at("spool", "in_flight"));
    metrics.gauge("journal_bytes", "Size of the journal of the durable mode.", at("durable", "journal_bytes"));
    metrics.gauge("refused_batches", "Batches that the server refuses, in the durable mode.", at("durable", "refused"));
    if (const auto* const counts = status["counts"].dictionary()) {
        addCounts(metrics, *counts);
    } else {
        // Scrapers expect the name to be there, and a counter that is 0 counts as one that began anew.
        metrics.counter("events_delivered_total", "Events confirmed by the server since the agent's start.", 0);
    }
    return std::move(metrics).text();
}

std::string timeOrNever(const Value& time) {
    return time.isNumber() ? timeText(time.integerValue()) : "never";
}

std::string bytesText(std::int64_t bytes) {
    constexpr std::int64_t kThousand = 1000;
    constexpr std::array<const char*, 3> kUnits = {"kB", "MB", "GB"};
    if (bytes < kThousand) {
        return fmt::format("{} bytes", bytes);
    }
    double shown = static_cast<double>(bytes) / kThousand;
    std::size_t unit = 0;
    for (; shown >= kThousand && unit + 1 < kUnits.size(); ++unit) {
        shown /= kThousand;
    }
    return fmt::format("{:.{}f} {}", shown, shown < 10 ? 1 : 0, kUnits.at(unit));
}

}  // namespace sentrova::control
