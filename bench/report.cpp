// Turns the results of one run into the table of docs/performance.md, its fitted exponents and its plot.

#include "Plot.h"

#include <sys/utsname.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace sentrova::bench {
namespace {

using Json = nlohmann::json;

// The best of the repetitions, each figure by itself, in seconds: what disturbs a measurement only ever adds to it.
struct Best {
    double wall = 0;
    double cpu = 0;
    Json last;
};

class Results {
  public:
    void read(const std::string& file) {
        std::ifstream in(file);
        const auto content = Json::parse(in);
        if (const auto context = content.find("context"); context != content.end()) {
            spoolFolder_ = context->value("spool", "");
        }
        for (const auto& entry : content.at("benchmarks")) {
            if (entry.value("run_type", "iteration") == "iteration") {
                add(entry);
            }
        }
    }

    // Where the spool of the parts made its files.
    const std::string& spoolFolder() const { return spoolFolder_; }

    const std::map<double, Best>& of(const std::string& name) const {
        static const std::map<double, Best> kNone;
        const auto found = all_.find(name);
        return found == all_.end() ? kNone : found->second;
    }
    // The result of the largest size; nothing when it was not measured.
    std::optional<Best> largest(const std::string& name) const {
        const auto& sizes = of(name);
        return sizes.empty() ? std::nullopt : std::optional(sizes.rbegin()->second);
    }
    std::optional<Best> at(const std::string& name, double size) const {
        const auto& sizes = of(name);
        const auto found = sizes.find(size);
        return found == sizes.end() ? std::nullopt : std::optional(found->second);
    }

  private:
    // "name/size", and what the benchmark library adds to it.
    void add(const Json& entry) {
        const auto name = entry.at("name").get<std::string>();
        const auto slash = name.find('/');
        const double size = slash == std::string::npos ? 0 : std::strtod(name.c_str() + slash + 1, nullptr);
        const double unit = entry.value("time_unit", "s") == "ms" ? 1e-3 : 1;
        const double wall = entry.value("real_time", 0.0) * unit;
        const double cpu = entry.value("cpu_time", 0.0) * unit;
        const auto [place, isNew] = all_[name.substr(0, slash)].try_emplace(size, Best{wall, cpu, entry});
        auto& best = place->second;
        best.wall = std::min(best.wall, wall);
        best.cpu = std::min(best.cpu, cpu);
        best.last = entry;
    }

    std::string spoolFolder_;
    std::map<std::string, std::map<double, Best>> all_;
};

struct Fit {
    double exponent = 0;
    double from = 0;
    double to = 0;
};

// Least squares over the logarithms, from where the cost is four times that of the smallest size: below, it is the
// fixed cost that is seen.
std::optional<Fit> fit(const std::map<double, Best>& sizes) {
    std::vector<std::pair<double, double>> logs;
    Fit result;
    for (const auto& [size, best] : sizes) {
        if (best.wall >= 4 * sizes.begin()->second.wall) {
            result.from = logs.empty() ? size : result.from;
            result.to = size;
            logs.emplace_back(std::log(size), std::log(best.wall));
        }
    }
    if (logs.size() < 2) {
        return std::nullopt;
    }
    double meanX = 0;
    double meanY = 0;
    for (const auto& [x, y] : logs) {
        meanX += x / static_cast<double>(logs.size());
        meanY += y / static_cast<double>(logs.size());
    }
    double covariance = 0;
    double variance = 0;
    for (const auto& [x, y] : logs) {
        covariance += (x - meanX) * (y - meanY);
        variance += (x - meanX) * (x - meanX);
    }
    result.exponent = covariance / variance;
    return result;
}

// A size in words, whole powers of ten as such.
std::string count(double number) {
    const auto exponent = std::log10(number);
    return number >= 1000 && exponent == std::floor(exponent) ? fmt::format("10^{:.0f}", exponent)
                                                              : fmt::format("{:.0f}", number);
}

std::string rate(double perSecond) {
    return perSecond >= 1e6 ? fmt::format("{:.1f} million", perSecond / 1e6)
                            : fmt::format("{:.0f} thousand", perSecond / 1e3);
}

std::string seconds(double time) {
    return time < 1 ? fmt::format("{:.1f} ms", time * 1e3) : fmt::format("{:.2f} s", time);
}

struct Row {
    std::string what;
    std::string baseline;
    std::string target;
    std::string measured;
    std::string met;
};

std::string verdict(bool met) {
    return met ? "met" : "**not met**";
}

// Rows of what was measured in this run; the others are left out.
class Table {
  public:
    explicit Table(const Results& results) : results_(results) {
        decode();
        spool();
        deliver();
        whole();
        ids();
        memory();
        outage();
        idle();
        log();
    }
    const std::vector<Row>& rows() const { return rows_; }

  private:
    static double counter(const Best& best, const char* name) { return best.last.value(name, 0.0); }
    static double sizeOf(const Best& best) {
        const auto name = best.last.at("name").get<std::string>();
        return std::strtod(name.c_str() + name.find('/') + 1, nullptr);
    }

    void decode() {
        const auto plain = results_.largest("read and sum");
        const auto ours = results_.largest("decode and filter");
        if (!plain || !ours) {
            return;
        }
        const auto ratio = ours->wall / plain->wall;
        const auto perSecond = sizeOf(*ours) / ours->wall;
        rows_.push_back({fmt::format("decode and filter {} records that are not configured, {:.0f} bytes each",
                                     count(sizeOf(*ours)), counter(*plain, "bytes a record")),
                         fmt::format("`read` and sum: {} (cpu {})", seconds(plain->wall), seconds(plain->cpu)),
                         "at most 2x, or 10 million records a second",
                         fmt::format("{} (cpu {}): {:.2f}x; {} records a second", seconds(ours->wall),
                                     seconds(ours->cpu), ratio, rate(perSecond)),
                         verdict(ratio <= 2 || perSecond >= 1e7)});
    }

    void spool() {
        const auto plain = results_.largest("selected, without names and JSON");
        const auto ours = results_.largest("selected to spool");
        if (!plain || !ours) {
            return;
        }
        const auto perSecond = sizeOf(*ours) / ours->wall;
        rows_.push_back(
            {"selected record to JSON in a spool file",
             fmt::format("the same without names and JSON: {} events a second", rate(sizeOf(*plain) / plain->wall)),
             "at least 300,000 events a second",
             fmt::format("{} events a second (cpu {:.2f} us an event)", rate(perSecond),
                         ours->cpu / sizeOf(*ours) * 1e6),
             verdict(perSecond >= 300'000)});
    }

    void deliver() {
        const auto plain = results_.largest("bare client");
        const auto ours = results_.largest("spool to delivery");
        if (!plain || !ours) {
            return;
        }
        const auto ratio = ours->wall / plain->wall;
        const auto perSecond = sizeOf(*ours) * 1000 / ours->wall;
        rows_.push_back({fmt::format("spool file to confirmed delivery, loopback, {} batches of 1,000 events",
                                     count(sizeOf(*ours))),
                         fmt::format("bare HTTP client, same bytes, 6 connections: {} (cpu {})", seconds(plain->wall),
                                     seconds(plain->cpu)),
                         "at most 1.25x; at least 100,000 events a second",
                         fmt::format("{} (cpu {}): {:.2f}x; {} events a second", seconds(ours->wall),
                                     seconds(ours->cpu), ratio, rate(perSecond)),
                         verdict(ratio <= 1.25 && perSecond >= 100'000)});
    }

    void whole() {
        const auto one = results_.at("records", 1e6);
        const auto ten = results_.at("records", 1e7);
        const auto words = results_.at("word count", 1e6);
        if (!one || !words) {
            return;
        }
        auto measured = fmt::format("{} (cpu {})", seconds(one->wall), seconds(one->cpu));
        bool met = one->wall <= 2;
        if (ten) {
            measured += fmt::format("; ten times the trail {} (cpu {}): {:.1f}x", seconds(ten->wall), seconds(ten->cpu),
                                    ten->wall / one->wall);
            met = met && ten->wall <= 10 * one->wall;
        }
        rows_.push_back({"whole agent, 10^6 records, 5 in 100 selected, 500 events a batch",
                         fmt::format("`wc -c`, reading the trail through `cat`: {}", seconds(words->wall)),
                         "2 s; ten times the trail, at most ten times the time", measured, verdict(met)});
    }

    void ids() {
        const auto unknown = results_.largest("unknown ids");
        const auto known = unknown ? results_.at("records", sizeOf(*unknown)) : std::nullopt;
        if (!known) {
            return;
        }
        const auto ratio = unknown->wall / known->wall;
        rows_.push_back({fmt::format("the same with {} records, half of the selected ones with unknown ids",
                                     count(sizeOf(*unknown))),
                         fmt::format("with known ids: {} (cpu {})", seconds(known->wall), seconds(known->cpu)),
                         "at most 1.1x",
                         fmt::format("{} (cpu {}): {:.2f}x", seconds(unknown->wall), seconds(unknown->cpu), ratio),
                         verdict(ratio <= 1.1)});
    }

    void memory() {
        const auto one = results_.at("records", 1e6);
        const auto ten = results_.at("records", 1e7);
        if (!one || !ten) {
            return;
        }
        const auto small = counter(*one, "peak_kib") / 1024;
        const auto large = counter(*ten, "peak_kib") / 1024;
        rows_.push_back({"peak memory (VmHWM) in that run", fmt::format("10^6 records: {:.1f} MiB", small),
                         "equal within 10 %, at most 32 MiB", fmt::format("10^7 records: {:.1f} MiB", large),
                         verdict(large <= 32 && std::abs(large - small) <= 0.1 * small)});
    }

    void outage() {
        const auto none = results_.at("outage", 0);
        const auto many = results_.largest("outage");
        if (!none || !many || sizeOf(*many) == 0) {
            return;
        }
        const auto small = counter(*none, "peak_kib") / 1024;
        const auto large = counter(*many, "peak_kib") / 1024;
        rows_.push_back(
            {fmt::format("{} files waiting while the server is away, over {:.0f} s", count(sizeOf(*many)), many->wall),
             fmt::format("no file: peak memory {:.1f} MiB, cpu {}", small, seconds(none->cpu)),
             "at most 32 MiB more; no processor time beyond noise",
             fmt::format("{:.1f} MiB: {:.1f} MiB more; cpu {}", large, large - small, seconds(many->cpu)),
             verdict(large - small <= 32 && many->cpu - none->cpu <= 0.05)});
    }

    void idle() {
        const auto idle = results_.largest("idle");
        if (!idle) {
            return;
        }
        const auto resident = counter(*idle, "rss_kib") / 1024;
        const auto share = counter(*idle, "pss_kib") / 1024;
        const auto wakeups = counter(*idle, "wakeups");
        auto measured = fmt::format(
            "{:.1f} MiB resident, {:.1f} MiB with its share alone of what libraries share; {:.0f} "
            "wake-ups of {:.0f} threads",
            resident, share, wakeups, counter(*idle, "threads"));
        for (const auto& thread : idle->last.value("threads woken", Json::array())) {
            measured += fmt::format("; {}", thread.get<std::string>());
        }
        rows_.push_back({fmt::format("idle over {:.0f} s, realtime collection on", counter(*idle, "seconds")), "none",
                         "at most 16 MiB; no wake-up but the tasks'", measured,
                         verdict(resident <= 16 && wakeups <= 4)});
    }

    void log() {
        const auto quiet = results_.at("log level", 0);
        const auto debug = results_.at("log level", 2);
        if (!quiet || !debug) {
            return;
        }
        const auto lines = counter(*debug, "lines");
        auto measured = fmt::format("{} (cpu {}) for {:.0f} lines: {:.1f} us of cpu a line", seconds(debug->wall),
                                    seconds(debug->cpu), lines, (debug->cpu - quiet->cpu) / lines * 1e6);
        bool met = true;
        if (const auto calls = results_.largest("log calls")) {
            const auto traced = counter(*calls, "lines");
            measured += fmt::format("; {:.0f} lines under strace: {:.0f} opens, {:.0f} writes, {:.0f} closes", traced,
                                    counter(*calls, "opens"), counter(*calls, "writes"), counter(*calls, "closes"));
            met = traced > 0 && counter(*calls, "opens") == traced && counter(*calls, "writes") == traced &&
                  counter(*calls, "closes") == traced;
        } else {
            measured += "; calls not counted, no strace";
        }
        rows_.push_back({"\"LogLevel\" 2, the same trail",
                         fmt::format("level 0: {} (cpu {})", seconds(quiet->wall), seconds(quiet->cpu)),
                         "cost stated; one open, one write, one close a line", measured, verdict(met)});
    }

    const Results& results_;
    std::vector<Row> rows_;
};

struct Growth {
    const char* name;
    const char* label;
};
constexpr Growth kGrowths[] = {{"records", "records in a trail, whole agent"},
                               {"spool", "files waiting in the spool, whole agent"},
                               {"users", "users in the volume, names and details"},
                               {"login history", "additions to the login history"}};

std::string growthTable(const Results& results) {
    std::string text = "| cost as work grows | sizes | fitted over | exponent | linear |\n|---|---|---|---|---|\n";
    for (const auto& growth : kGrowths) {
        const auto& sizes = results.of(growth.name);
        const auto fitted = fit(sizes);
        if (sizes.empty()) {
            continue;
        }
        text += fmt::format("| {} | {} to {} | {} | {} | {} |\n", growth.label, count(sizes.begin()->first),
                            count(sizes.rbegin()->first),
                            fitted ? fmt::format("{} to {}", count(fitted->from), count(fitted->to)) : "too few sizes",
                            fitted ? fmt::format("{:.2f}", fitted->exponent) : "-",
                            fitted ? verdict(fitted->exponent <= 1.1) : "-");
    }
    return text;
}

std::string plot(const Results& results) {
    std::vector<Line> lines;
    for (const auto& growth : kGrowths) {
        Line line{growth.label, {}};
        for (const auto& [size, best] : results.of(growth.name)) {
            line.points.emplace_back(size, best.wall);
        }
        if (!line.points.empty()) {
            lines.push_back(std::move(line));
        }
    }
    return logLogPlot("Cost as work grows", "how many", "seconds", lines);
}

std::string lineOf(const char* file, const std::string& name) {
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with(name)) {
            return line.substr(line.find_first_not_of(" \t", line.find(':') + 1));
        }
    }
    return "unknown";
}

std::string machine() {
    utsname host{};
    ::uname(&host);
    const auto kib = std::strtod(lineOf("/proc/meminfo", "MemTotal").c_str(), nullptr);
    return fmt::format("{}, {} cores, {:.0f} GiB of memory; {} {}; compiler {}", lineOf("/proc/cpuinfo", "model name"),
                       std::thread::hardware_concurrency(), kib / 1024 / 1024, host.sysname, host.release, __VERSION__);
}

std::string document(const Results& results, const std::string& command) {
    const auto now = std::time(nullptr);
    auto text = fmt::format(
        "# Performance\n\nWritten by `{}` on {:%Y-%m-%d}, on this machine: {}.\n\nEach figure is the best of several "
        "repetitions; each baseline was measured in the same run. Times are wall-clock, with the processor\ntime of "
        "all threads in brackets. What a row measures is said in `bench/parts.cpp` and `bench/agent.cpp`. Files lie\n"
        "on the disk, but those that the spool makes in the row of the selected record, which lie in `{}`.\n\n",
        command, fmt::gmtime(now), machine(), results.spoolFolder());
    text += "| what | baseline | target | measured | |\n|---|---|---|---|---|\n";
    const Table table(results);
    for (const auto& row : table.rows()) {
        text += fmt::format("| {} | {} | {} | {} | {} |\n", row.what, row.baseline, row.target, row.measured, row.met);
    }
    text += "\n" + growthTable(results);
    return text + "\n![Cost as work grows](performance.svg)\n";
}

}  // namespace
}  // namespace sentrova::bench

int main(int argc, char** argv) {
    using namespace sentrova::bench;
    if (argc < 4) {
        fmt::print(stderr, "usage: {} FOLDER COMMAND RESULT-FILE...\n", argv[0]);
        return 64;
    }
    try {
        Results results;
        for (int i = 3; i < argc; ++i) {
            results.read(argv[i]);
        }
        const auto text = document(results, argv[2]);
        const std::filesystem::path folder = argv[1];
        std::ofstream(folder / "performance.md") << text;
        std::ofstream(folder / "performance.svg") << plot(results);
        fmt::print("{}", text);
        return EXIT_SUCCESS;
    } catch (const std::exception& exception) {
        fmt::print(stderr, "{}: {}\n", argv[0], exception.what());
        return EXIT_FAILURE;
    }
}
