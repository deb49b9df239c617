// The cost of the whole agent and of sentrovactl's events: the agent's own program, started as the service manager
// does, with generated trails and spools and the stand-in audit server. Writes its results in the format of Google
// Benchmark, so that one program reads both. Times are in seconds, from the start of the process.

#include "BenchVolume.h"
#include "BuildPaths.h"
#include "LoopbackServer.h"
#include "support/RunningAgent.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace sentrova::bench {
namespace {

using namespace std::chrono_literals;  // NOLINT(google-build-using-namespace)
using Json = nlohmann::ordered_json;
using testing::RunningAgent;
namespace fs = std::filesystem;

constexpr std::chrono::seconds kPatience{300};
constexpr std::size_t kEventsPerFile = 500;

double secondsSince(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

double processorSecondsOfChildren() {
    rusage usage{};
    ::getrusage(RUSAGE_CHILDREN, &usage);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// The number in the line "Name:   123 kB" of a file in /proc; -1 if there is none.
std::int64_t numberIn(const fs::path& file, std::string_view name) {
    const auto text = contentOf(file);
    const auto at = text.find(fmt::format("{}:", name));
    return at == std::string::npos ? -1 : std::strtoll(text.c_str() + at + name.size() + 1, nullptr, 10);
}

fs::path procOf(const RunningAgent& agent) {
    return fmt::format("/proc/{}", agent.process());
}

class Results {
  public:
    void add(const std::string& name, const Json& values) {
        Json result = {{"name", name}};
        result.update(values);
        fmt::print(stderr, "{}\n", result.dump());
        all_.push_back(std::move(result));
    }

    void write(const fs::path& path) const { std::ofstream(path) << Json{{"benchmarks", all_}}.dump(1) << "\n"; }

  private:
    Json all_ = Json::array();
};

// Waits until the spool holds no batch. The files of the durable mode begin with a dot and stay.
bool waitForEmptySpool(const BenchVolume& volume) {
    return testing::waitUntil(
        [&] {
            return std::ranges::all_of(fs::directory_iterator(volume.files().eventData()), [](const auto& file) {
                return file.path().filename().native().starts_with('.');
            });
        },
        kPatience);
}

// Runs the agent on the volume until that many events have arrived and the spool is empty. The time ends with the last
// arrival: the durable mode deletes confirmed batches up to a second later, with its next flush.
Json deliver(const LoopbackServer& server, const BenchVolume& volume, std::uint64_t events,
             const fs::path& program = testing::build::kAgent) {
    const auto before = server.arrived();
    const auto processorBefore = processorSecondsOfChildren();
    const auto begin = std::chrono::steady_clock::now();
    RunningAgent agent(program, volume.files());
    const bool arrived = server.waitFor(before + events, kPatience);
    const auto wall = secondsSince(begin);
    const bool emptied = waitForEmptySpool(volume);
    const auto untilEmpty = secondsSince(begin) - wall;
    const auto peak = numberIn(procOf(agent) / "status", "VmHWM");
    if (!arrived || !emptied || agent.stop() != 0) {
        throw std::runtime_error(fmt::format("{} of {} events arrived: {}", server.arrived() - before, events,
                                             testing::logOf(volume.files(), "Config").substr(0, 4000)));
    }
    return {{"real_time", wall},
            {"cpu_time", processorSecondsOfChildren() - processorBefore},
            {"peak_kib", peak},
            {"empty_after", untilEmpty},
            {"events", server.arrived() - before}};
}

// The spool writes a full file when the next event arrives. This many additional records yield that one event.
constexpr std::size_t kLastInMemory = 20;

// How many events of a trail of that many records, and kLastInMemory more, reach the spool.
std::uint64_t spooled(std::size_t records) {
    return records / 20 / kEventsPerFile * kEventsPerFile;
}

// The baseline reads every byte; wc alone would only ask for the file's size.
double secondsOfWordCount(const fs::path& trail) {
    const auto begin = std::chrono::steady_clock::now();
    const auto command = fmt::format("cat '{}' | wc -c >/dev/null", trail.string());
    if (std::system(command.c_str()) != 0) {  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
        throw std::runtime_error(command);
    }
    return secondsSince(begin);
}

void runRecords(Results& results, const LoopbackServer& server, std::size_t largest, int repetitions) {
    for (std::size_t records = 10'000; records <= largest; records *= 10) {
        for (int i = 0; i < (records >= 10'000'000 ? std::min(repetitions, 2) : repetitions); ++i) {
            BenchVolume volume({.port = server.port()});
            const auto trail = volume.addTrail("1", records + kLastInMemory, BenchVolume::Selected::fiveInHundred);
            results.add(fmt::format("word count/{}", records), {{"real_time", secondsOfWordCount(trail)}});
            results.add(fmt::format("records/{}", records), deliver(server, volume, spooled(records)));
        }
    }
    const auto records = std::min<std::size_t>(largest, 1'000'000);
    for (int i = 0; i < repetitions; ++i) {
        BenchVolume volume({.port = server.port()});
        volume.addTrail("1", records + kLastInMemory, BenchVolume::Selected::fiveInHundred,
                        BenchVolume::Ids::halfUnknown);
        results.add(fmt::format("unknown ids/{}", records), deliver(server, volume, spooled(records)));
    }
}

// Both modes in turn, on trails that are already on the disk: a flush would otherwise wait for the trail's bytes too.
void runDurable(Results& results, const LoopbackServer& server, std::size_t records, int repetitions) {
    for (int i = 0; i < repetitions; ++i) {
        for (const bool durable : {false, true}) {
            BenchVolume volume({.port = server.port(), .durable = durable});
            volume.addTrail("1", records + kLastInMemory, BenchVolume::Selected::fiveInHundred);
            ::sync();
            const auto run = deliver(server, volume, spooled(records));
            if (fs::exists(volume.files().eventData() / ".journal") != durable) {
                throw std::runtime_error("the agent ran in the wrong mode");
            }
            results.add(fmt::format("{}/{}", durable ? "durable" : "not durable", records), run);
        }
    }
}

// Makes the events of a trail with sentrovactl, as lines of JSON. `cores` are those that it may use, as taskset names
// them.
Json reportEvents(const BenchVolume& volume, const fs::path& trail, std::string_view cores, std::int64_t expected) {
    const auto output = volume.files().root() / "events";
    std::string names;
    for (const auto& name : eventsToRead()) {
        names += (names.empty() ? "" : ",") + name;
    }
    const auto command =
        fmt::format("taskset -c {} '{}' events --volume '{}' --select {} '{}' >'{}'", cores, testing::build::kControl,
                    volume.files().volume().string(), names, trail.string(), output.string());
    const auto processorBefore = processorSecondsOfChildren();
    const auto begin = std::chrono::steady_clock::now();
    if (std::system(command.c_str()) != 0) {  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
        throw std::runtime_error(command);
    }
    const auto wall = secondsSince(begin);
    const auto processor = processorSecondsOfChildren() - processorBefore;
    std::ifstream lines(output, std::ios::binary);
    if (std::count(std::istreambuf_iterator<char>(lines), {}, '\n') != expected) {
        throw std::runtime_error("not every event was written: " + command);
    }
    return {{"real_time", wall}, {"cpu_time", processor}};
}

void runEvents(Results& results, std::size_t records, int repetitions) {
    const auto* const folder = std::getenv("SENTROVA_BENCH_SPOOL");
    BenchVolume volume({.folder = folder ? fs::path(folder) : fs::temp_directory_path()});
    const auto some = volume.addTrail("1", records, BenchVolume::Selected::fiveInHundred);
    const auto all = volume.addTrail("2", records, BenchVolume::Selected::all);
    const auto count = static_cast<std::int64_t>(records);
    for (int i = 0; i < repetitions; ++i) {
        results.add(fmt::format("events, 5 in 100 selected/{}", records), reportEvents(volume, some, "0", count / 20));
        results.add(fmt::format("events, everything selected, one core/{}", records),
                    reportEvents(volume, all, "0", count));
        if (std::thread::hardware_concurrency() > 1) {
            results.add(fmt::format("events, everything selected, two cores/{}", records),
                        reportEvents(volume, all, "0,1", count));
        }
    }
}

// Adds files of five events each, as left by an earlier run.
void addSpoolFiles(const BenchVolume& volume, std::size_t files) {
    std::string batch = "[";
    for (int i = 0; i < 5; ++i) {
        batch += fmt::format(R"({}{{"record_event":45028,"UserName":"person{}","EventSource":"OpenBSM"}})",
                             i > 0 ? "," : "", i);
    }
    batch += "]";
    for (std::size_t i = 0; i < files; ++i) {
        std::ofstream(volume.files().eventData() / fmt::format("event_{:017}", 20260101000000000 + i)) << batch;
    }
}

void runSpool(Results& results, const LoopbackServer& server, std::size_t largest) {
    for (std::size_t files = 1; files <= largest; files *= 10) {
        const BenchVolume volume({.port = server.port()});
        addSpoolFiles(volume, files);
        results.add(fmt::format("spool/{}", files), deliver(server, volume, files * 5));
    }
}

double processorSeconds(const RunningAgent& agent) {
    clockid_t clock{};
    timespec time{};
    if (::clock_getcpuclockid(agent.process(), &clock) != 0 || ::clock_gettime(clock, &time) != 0) {
        throw std::runtime_error("the agent's processor time cannot be read");
    }
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// Runs an agent whose server refuses deliveries, first without waiting files and then with that many. Waiting files are
// re-announced several times meanwhile.
void runOutage(Results& results, const LoopbackServer& refusing, std::size_t largest, std::chrono::seconds time) {
    for (const std::size_t files : {std::size_t{0}, largest}) {
        const BenchVolume volume({.port = refusing.port()});
        addSpoolFiles(volume, files);
        RunningAgent agent(testing::build::kAgent, volume.files());
        // The start has ended, and the first deliveries have failed.
        std::this_thread::sleep_for(time < 30s ? 2s : 5s);
        const auto before = processorSeconds(agent);
        std::this_thread::sleep_for(time);
        const auto after = processorSeconds(agent);
        results.add(fmt::format("outage/{}", files), {{"real_time", time.count()},
                                                      {"cpu_time", after - before},
                                                      {"peak_kib", numberIn(procOf(agent) / "status", "VmHWM")}});
        agent.stop();
    }
}

std::int64_t linesLogged(const BenchVolume& volume) {
    std::int64_t lines = 0;
    for (const auto* category : {"Config", "Event", "Communication"}) {
        lines += std::ranges::count(testing::logOf(volume.files(), category), '\r');
    }
    return lines;
}

// The same run at both log levels.
void runLogLevels(Results& results, const LoopbackServer& server, std::size_t records) {
    for (const int level : {0, 2}) {
        BenchVolume volume({.port = server.port(), .logLevel = level});
        volume.addTrail("1", records + kLastInMemory, BenchVolume::Selected::fiveInHundred);
        auto run = deliver(server, volume, spooled(records));
        run["lines"] = linesLogged(volume);
        results.add(fmt::format("log level/{}", level), run);
    }
}

// Counts the system calls for the log in the files of strace, one per thread. Each log line takes an openat, whose
// result is the descriptor, a write and a close. A line truncated by the end of the process is not counted.
Json callsOf(const fs::path& folder, std::int64_t lines) {
    std::int64_t opens = 0;
    std::int64_t writes = 0;
    std::int64_t closes = 0;
    for (const auto& entry : fs::directory_iterator(folder)) {
        std::istringstream calls(contentOf(entry.path()));
        std::string descriptor;
        std::int64_t written = 0;
        for (std::string call; std::getline(calls, call);) {
            const bool opensLog = call.starts_with("openat(") && call.find("../logs/") != std::string::npos &&
                                  call.find("O_DIRECTORY") == std::string::npos;
            const bool ours = !descriptor.empty() && call.find("(" + descriptor) != std::string::npos;
            if (opensLog) {
                ++opens;
                written = 0;
                const auto result = call.rfind(") = ");
                descriptor = result == std::string::npos ? "?" : call.substr(result + 4);
            } else if (ours && call.starts_with("write(")) {
                ++writes;
                ++written;
            } else if (ours && call.starts_with("close(")) {
                ++closes;
                descriptor.clear();
            }
        }
        if (!descriptor.empty()) {
            --opens;
            writes -= written;
            lines -= written;
        }
    }
    return {{"opens", opens}, {"writes", writes}, {"closes", closes}, {"lines", lines}};
}

bool canTrace() {
    if (std::system("strace -o /dev/null true 2>/dev/null") == 0) {  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
        return true;
    }
    fmt::print(stderr, "strace is not there or may not trace: calls are not counted\n");
    return false;
}

// A program that runs the agent under strace. The calls of each thread go to a file in the folder.
fs::path tracedAgent(const BenchVolume& volume, const fs::path& folder, std::string_view options) {
    auto program = volume.files().root() / "traced-agent";
    fs::create_directory(folder);
    std::ofstream(program) << "#!/bin/sh\nexec strace -D -ff -q " << options << " -o '" << folder.string()
                           << "/thread' '" << testing::build::kAgent << "'\n";
    fs::permissions(program, fs::perms::owner_all);
    return program;
}

// strace may still be writing after the agent has ended.
bool waitForTrace(const fs::path& folder) {
    return testing::waitUntil([&folder] {
        return std::ranges::all_of(fs::directory_iterator(folder),
                                   [](const auto& file) { return contentOf(file.path()).ends_with("+++\n"); });
    });
}

void runTracedLog(Results& results, const LoopbackServer& server) {
    if (!canTrace()) {
        return;
    }
    BenchVolume volume({.port = server.port(), .eventsPerRequest = 5, .logLevel = 2});
    volume.addTrail("1", 400, BenchVolume::Selected::fiveInHundred);
    const auto folder = volume.files().root() / "calls";
    RunningAgent agent(tracedAgent(volume, folder, "-e trace=openat,write,close"), volume.files());
    static_cast<void>(testing::waitForLog(volume.files(), "Config", "1 file read", kPatience));
    agent.stop();
    const bool complete = waitForTrace(folder);
    const auto lines = linesLogged(volume);
    results.add("log calls", complete ? callsOf(folder, lines) : Json({{"lines", lines}}));
}

// The flushes between two times, in the files of strace: lines such as "1700000000.123456 fsync(7</a/file>) = 0".
Json flushesOf(const fs::path& folder, double from, double to) {
    std::int64_t flushes = 0;
    std::int64_t ofJournal = 0;
    for (const auto& entry : fs::directory_iterator(folder)) {
        std::istringstream calls(contentOf(entry.path()));
        for (std::string call; std::getline(calls, call);) {
            const auto time = std::strtod(call.c_str(), nullptr);
            if (call.find("sync(") != std::string::npos && time >= from && time < to) {
                ++flushes;
                ofJournal += call.find("/.journal>") != std::string::npos ? 1 : 0;
            }
        }
    }
    return {{"flushes", flushes}, {"of journal", ofJournal}};
}

double secondsOfDay() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Realtime collection in the durable mode, while the system writes ten events a second.
void runFlushes(Results& results, const LoopbackServer& server, std::chrono::seconds time) {
    constexpr auto kBetweenEvents = 100ms;
    if (!canTrace()) {
        return;
    }
    const BenchVolume volume({.port = server.port(), .realtime = true, .durable = true});
    LiveTrail trail(volume.files());
    const auto folder = volume.files().root() / "calls";
    auto expected = server.arrived();
    RunningAgent agent(tracedAgent(volume, folder, "-ttt -y -e trace=fsync,fdatasync,sync,syncfs"), volume.files());
    // The first event shows that the start is over.
    trail.writeSelected();
    bool arrived = server.waitFor(++expected, kPatience) && waitForEmptySpool(volume);
    const auto from = secondsOfDay();
    const auto begin = std::chrono::steady_clock::now();
    for (auto next = begin; next < begin + time; next += kBetweenEvents) {
        std::this_thread::sleep_until(next);
        trail.writeSelected();
        ++expected;
    }
    std::this_thread::sleep_until(begin + time);
    const auto to = secondsOfDay();
    arrived = arrived && server.waitFor(expected, kPatience);
    if (!arrived || agent.stop() != 0 || !waitForTrace(folder)) {
        throw std::runtime_error("the events of the stream did not arrive");
    }
    Json run = {{"seconds", to - from}, {"events per second", 1s / kBetweenEvents}};
    run.update(flushesOf(folder, from, to));
    results.add("flushes", run);
}

std::map<std::string, std::int64_t> switchesByThread(const RunningAgent& agent) {
    std::map<std::string, std::int64_t> switches;
    for (const auto& thread : fs::directory_iterator(procOf(agent) / "task")) {
        switches[thread.path().filename()] = numberIn(thread.path() / "status", "voluntary_ctxt_switches");
    }
    return switches;
}

// Runs the agent with an empty spool, realtime collection and the scheduled tasks of an installation. In the durable
// mode the system has a trail open, and its one event has been delivered.
void runIdle(Results& results, const LoopbackServer& server, std::chrono::seconds time, bool durable) {
    const BenchVolume volume({.port = server.port(), .realtime = true, .durable = durable});
    fs::copy_file(testing::build::kShippedSchedules, volume.files().conf() / "schedules.plist");
    std::optional<LiveTrail> trail;
    const auto expected = server.arrived() + 1;
    if (durable) {
        trail.emplace(volume.files()).writeSelected();
    }
    RunningAgent agent(testing::build::kAgent, volume.files());
    if (durable && !(server.waitFor(expected, kPatience) && waitForEmptySpool(volume))) {
        throw std::runtime_error("the event of the open trail did not arrive");
    }
    // Half a minute after the start, the spool stores the time of the last event, once.
    std::this_thread::sleep_for(time < 60s ? 3s : 35s);
    const auto before = switchesByThread(agent);
    std::this_thread::sleep_for(time);
    const auto after = switchesByThread(agent);
    Json run = {{"seconds", time.count()},
                {"threads", after.size()},
                {"rss_kib", numberIn(procOf(agent) / "status", "VmRSS")},
                {"pss_kib", numberIn(procOf(agent) / "smaps_rollup", "Pss")},
                {"wakeups", 0}};
    std::size_t place = 0;
    for (const auto& [thread, count] : after) {
        ++place;
        const auto found = before.find(thread);
        const auto woken = count - (found == before.end() ? 0 : found->second);
        run["wakeups"] = run["wakeups"].get<std::int64_t>() + woken;
        if (woken > 0) {
            run["threads woken"].push_back(fmt::format("thread {}: {}", place, woken));
        }
    }
    agent.stop();
    results.add(durable ? "idle, durable" : "idle", run);
}

struct Sizes {
    std::size_t records;
    int repetitions;
    std::size_t spoolFiles;
    std::size_t waitingFiles;
    std::chrono::seconds outage;
    std::size_t loggedRecords;
    std::chrono::seconds stream;
    std::chrono::seconds idle;
};
const std::map<std::string, Sizes> kSizes = {{"full", {10'000'000, 3, 100'000, 100'000, 60s, 1'000'000, 60s, 60s}},
                                             {"quick", {1'000'000, 3, 10'000, 100'000, 30s, 1'000'000, 20s, 10s}},
                                             {"smoke", {100'000, 1, 10, 100, 1s, 20'000, 1s, 1s}}};

void run(const Sizes& sizes, const std::string& file, const std::vector<std::string>& parts) {
    const LoopbackServer server(LoopbackServer::Kind::audit);
    const LoopbackServer refusing(LoopbackServer::Kind::refusing);
    Results results;
    for (const auto& part : parts) {
        if (part == "records") {
            runRecords(results, server, sizes.records, sizes.repetitions);
        } else if (part == "durable") {
            runDurable(results, server, std::min<std::size_t>(sizes.records, 1'000'000), sizes.repetitions);
        } else if (part == "events") {
            runEvents(results, std::min<std::size_t>(sizes.records, 1'000'000), sizes.repetitions);
        } else if (part == "spool") {
            runSpool(results, server, sizes.spoolFiles);
        } else if (part == "outage") {
            runOutage(results, refusing, sizes.waitingFiles, sizes.outage);
        } else if (part == "log") {
            runLogLevels(results, server, sizes.loggedRecords);
            runTracedLog(results, server);
        } else if (part == "flushes") {
            runFlushes(results, server, sizes.stream);
        } else if (part == "idle") {
            runIdle(results, server, sizes.idle, false);
            runIdle(results, server, sizes.idle, true);
        } else {
            throw std::runtime_error("no such measurement: " + part);
        }
    }
    results.write(file);
}

}  // namespace
}  // namespace sentrova::bench

int main(int argc, char** argv) {
    using namespace sentrova::bench;
    const std::vector<std::string> arguments(argv, argv + argc);
    if (arguments.size() < 4 || !kSizes.contains(arguments[1])) {
        fmt::print(stderr,
                   "usage: {} full|quick|smoke RESULT-FILE records|durable|events|spool|outage|log|flushes|idle...\n",
                   arguments[0]);
        return 64;
    }
    try {
        run(kSizes.at(arguments[1]), arguments[2], {arguments.begin() + 3, arguments.end()});
        return EXIT_SUCCESS;
    } catch (const std::exception& exception) {
        fmt::print(stderr, "{}: {}\n", arguments[0], exception.what());
        return EXIT_FAILURE;
    }
}
