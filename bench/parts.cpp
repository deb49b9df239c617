// The cost of the agent's parts, each beside a baseline. Times are wall-clock ("real") and the processor time of all
// threads of this process ("cpu").

#include "BareClient.h"
#include "BenchVolume.h"
#include "LoopbackServer.h"
#include "collection/DomainUtil.h"
#include "collection/EventCollector.h"
#include "collection/bsm/TokenReader.h"
#include "collection/currentLoginUtility.h"
#include "forwarding/EventForwarder.h"
#include "forwarding/EventQueueGCD.h"
#include "forwarding/TransportEngine.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/Current.h"
#include "foundation/run/NotificationCenter.h"
#include "platform/curl/CurlUrlSession.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <numeric>
#include <string_view>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

namespace sentrova::bench {
namespace {

using Selected = BenchVolume::Selected;

// The folder for the files that the spool writes.
std::string spoolFolder() {
    const auto* const folder = std::getenv("SENTROVA_BENCH_SPOOL");
    return folder ? folder : std::filesystem::temp_directory_path().string();
}

// Each volume is created once per process, because that takes longer than a measurement.
BenchVolume& filterVolume(std::size_t records) {
    static BenchVolume volume({});
    static const auto trail = volume.addTrail("filter", records, Selected::none);
    return volume;
}
BenchVolume& spoolVolume(std::size_t records) {
    static BenchVolume volume({.folder = spoolFolder()});
    static const auto trail = volume.addTrail("spool", records, Selected::all);
    return volume;
}

LoopbackServer* theSink = nullptr;

// A file as a byte source, without buffer.
class PlainFile final : public bsm::ByteSource {
  public:
    explicit PlainFile(const std::filesystem::path& path) : file_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
    std::ptrdiff_t read(std::span<std::uint8_t> into) override { return ::read(file_.get(), into.data(), into.size()); }

  private:
    FileDescriptor file_;
};

void readAndSum(benchmark::State& state) {
    const auto records = static_cast<std::size_t>(state.range(0));
    const auto path = filterVolume(records).files().auditFolder() / "filter";
    std::vector<std::uint8_t> block(256 * 1024);
    for (auto _ : state) {
        PlainFile file(path);
        std::uint64_t sum = 0;
        for (auto got = file.read(block); got > 0; got = file.read(block)) {
            sum = std::accumulate(block.begin(), block.begin() + got, sum);
        }
        benchmark::DoNotOptimize(sum);
    }
    state.counters["bytes per record"] =
        static_cast<double>(std::filesystem::file_size(path)) / static_cast<double>(records);
}

// Reads a trail of the volume as batch collection does.
void collect(const std::string& name) {
    EventCollector collector("/var/audit/" + name, eventsToRead());
    collector.start();
}

// Repeats the pass, each time with a new agent.
void collectEachTime(benchmark::State& state, BenchVolume& volume, const std::string& name) {
    for (auto _ : state) {
        state.PauseTiming();
        volume.enter();
        EventQueueGCD::init();
        currentLoginUtility::initialize();
        state.ResumeTiming();
        collect(name);
    }
}

void decodeAndFilter(benchmark::State& state) {
    collectEachTime(state, filterVolume(static_cast<std::size_t>(state.range(0))), "filter");
}

void selectedToSpool(benchmark::State& state) {
    collectEachTime(state, spoolVolume(static_cast<std::size_t>(state.range(0))), "spool");
}

// The baseline of selectedToSpool: reads every token of the same records and writes files of the same size.
void selectedWithoutNamesAndJson(benchmark::State& state) {
    const auto records = static_cast<std::size_t>(state.range(0));
    auto& volume = spoolVolume(records);
    const auto path = volume.files().auditFolder() / "spool";
    const Data batch(500 * 640, ' ');
    static int files = 0;
    for (auto _ : state) {
        PlainFile file(path);
        bsm::RecordReader reader(file);
        for (std::size_t read = 1; reader.au_read_rec() > 0; ++read) {
            bsm::TokenReader tokens(reader.record());
            while (tokens.left() > 0 && tokens.au_fetch_tok() == 0) {
                benchmark::DoNotOptimize(tokens.token());
            }
            if (read % 500 == 0) {
                const auto target = volume.files().eventData() / fmt::format("plain_{}", ++files);
                static_cast<void>(
                    Current<FileSystem>::get().writeAtomically(target, batch, FileSystem::Durability::renamed));
            }
        }
    }
}

// The content of the files that the spool writes.
std::vector<std::string> spooledBatches(std::size_t count, int eventsEach) {
    BenchVolume volume({.eventsPerRequest = eventsEach});
    volume.addTrail("batches", count * static_cast<std::size_t>(eventsEach) + 1, Selected::all);
    volume.enter();
    EventQueueGCD::init();
    currentLoginUtility::initialize();
    collect("batches");
    std::vector<std::string> batches;
    for (const auto& entry : std::filesystem::directory_iterator(volume.files().eventData())) {
        batches.push_back(contentOf(entry.path()));
    }
    return batches;
}

const std::vector<std::string>& theBatches(std::size_t count) {
    static const auto batches = spooledBatches(count, 1000);
    return batches;
}

void bareClient(benchmark::State& state) {
    const auto& batches = theBatches(static_cast<std::size_t>(state.range(0)));
    BareClient client(fmt::format("http://127.0.0.1:{}/api/agent/tabs/agentData", theSink->port()),
                      EventForwarder::kDeliveriesInFlight);
    client.post(batches);
    for (auto _ : state) {
        client.post(batches);
    }
}

// The agent's own session. Counts the completions that have run.
class CountingSession final : public UrlSession {
  public:
    CountingSession(Clock& clock, std::atomic<std::size_t>& completed) : session_(clock), completed_(completed) {
        session_.start();
    }

    void uploadTask(const UrlRequest& request, std::string body, Completion completionHandler) override {
        uploadShared(request, std::make_shared<const std::string>(std::move(body)), std::move(completionHandler));
    }

    void uploadShared(const UrlRequest& request, const std::shared_ptr<const std::string>& body,
                      Completion completionHandler) override {
        session_.uploadShared(request, body,
                              [this, completion = std::move(completionHandler)](const auto& data, const auto& response,
                                                                                const auto& error) {
                                  completion(data, response, error);
                                  completed_.fetch_add(1);
                                  completed_.notify_one();
                              });
    }

  private:
    platform::CurlUrlSession session_;
    std::atomic<std::size_t>& completed_;
};

// From the announcement of the first spool file to the completion of the last request.
void spoolToDelivery(benchmark::State& state) {
    const auto& batches = theBatches(static_cast<std::size_t>(state.range(0)));
    std::atomic<std::size_t> completed = 0;
    platform::SystemClock clock;
    CountingSession session(clock, completed);
    BenchVolume volume({.port = theSink->port()});
    volume.useSession(session);
    volume.enter();
    EventQueueGCD::init();
    const auto forwarder = EventForwarder::init();
    forwarder->start();
    const auto deliver = [&](bool timed) {
        std::vector<FileUrl> files;
        for (std::size_t i = 0; i < batches.size(); ++i) {
            files.emplace_back((volume.files().eventData() / fmt::format("event_{:017}", i)).string());
            static_cast<void>(Current<FileSystem>::get().append(files.back().path(), batches[i]));
        }
        completed = 0;
        if (timed) {
            state.ResumeTiming();
        }
        for (const auto& file : files) {
            NotificationCenter::defaultCenter().post({EventQueueGCD::kEventFileNotification,
                                                      EventQueueGCD::identity(),
                                                      {{EventQueueGCD::kFileUrl, file.absoluteString()}}});
        }
        for (auto done = completed.load(); done < batches.size(); done = completed.load()) {
            completed.wait(done);
        }
    };
    deliver(false);
    for (auto _ : state) {
        state.PauseTiming();
        deliver(true);
    }
    if (!std::filesystem::is_empty(volume.files().eventData()) || !TransportEngine::isConnected()) {
        state.SkipWithError("not everything was delivered");
    }
    forwarder->cancel();
    volume.leave();
}

// Looks up the name of each user by id and the details by name, twice.
void users(benchmark::State& state) {
    const auto count = static_cast<std::uint32_t>(state.range(0));
    BenchVolume volume({});
    volume.addUsers(count);
    for (auto _ : state) {
        state.PauseTiming();
        volume.enter();
        DomainUtil::getUserNameFromID(0);
        state.ResumeTiming();
        for (std::uint32_t asked = 0; asked < 2 * count; ++asked) {
            const auto name = DomainUtil::getUserNameFromID(BenchVolume::kFirstUserId + asked % count);
            if (!DomainUtil::getUserDetails(name)) {
                state.SkipWithError("a user is not found");
            }
        }
    }
}

// Adds that many entries, one second apart, writes the file, and looks up each entry.
void loginHistory(benchmark::State& state) {
    const auto count = state.range(0);
    BenchVolume volume({});
    for (auto _ : state) {
        state.PauseTiming();
        volume.enter();
        currentLoginUtility::initialize();
        state.ResumeTiming();
        for (std::int64_t i = 1; i <= count; ++i) {
            currentLoginUtility::addToLoginHistory({{"uid", "person1"}}, static_cast<double>(i));
        }
        currentLoginUtility::flush();
        for (std::int64_t i = 1; i <= count; ++i) {
            if (!currentLoginUtility::getLogonUserAtTime(i)) {
                state.SkipWithError("an entry is not found");
            }
        }
    }
}

struct Sizes {
    int repetitions;
    double seconds;
    std::int64_t records;
    std::int64_t events;
    std::int64_t batches;
    std::int64_t largestGrowth;
};
const std::map<std::string_view, Sizes> kSizes = {{"full", {5, 0.5, 1'000'000, 200'000, 200, 100'000}},
                                                  {"quick", {3, 0.125, 200'000, 50'000, 60, 10'000}},
                                                  {"smoke", {1, 0.01, 2000, 2000, 4, 10}}};

void registerAll(const Sizes& sizes) {
    const auto add = [](const char* name, auto function, std::int64_t argument, int repetitions, double seconds) {
        auto* const made = benchmark::RegisterBenchmark(name, function);
        made->Arg(argument)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();
        made->Repetitions(repetitions)->MinTime(seconds);
    };
    const auto [repetitions, seconds, records, events, batches, largestGrowth] = sizes;
    add("read and sum", readAndSum, records, repetitions, seconds);
    add("decode and filter", decodeAndFilter, records, repetitions, seconds);
    add("selected, without names and JSON", selectedWithoutNamesAndJson, events, repetitions, seconds);
    add("selected to spool", selectedToSpool, events, repetitions, seconds);
    add("bare client", bareClient, batches, 2 * repetitions, seconds);
    add("spool to delivery", spoolToDelivery, batches, 2 * repetitions, seconds);
    for (std::int64_t n = 1; n <= largestGrowth; n *= 10) {
        add("users", users, n, std::min(repetitions, 3), seconds / 10);
        add("login history", loginHistory, n, std::min(repetitions, 3), seconds / 10);
    }
}

}  // namespace
}  // namespace sentrova::bench

int main(int argc, char** argv) {
    using namespace sentrova::bench;
    const auto* const name = std::getenv("SENTROVA_BENCH_SIZE");
    const auto sizes = kSizes.find(name ? name : "quick");
    if (sizes == kSizes.end()) {
        fmt::print(stderr, "SENTROVA_BENCH_SIZE is full, quick or smoke, not {}\n", name);
        return 64;
    }
    LoopbackServer sink(LoopbackServer::Kind::sink);
    theSink = &sink;
    registerAll(sizes->second);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 64;
    }
    benchmark::AddCustomContext("spool", spoolFolder());
    benchmark::AddCustomContext("compiler", __VERSION__);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
