// Creates a Mac's system volume with one working day in its audit trails, and an installation of the agent next to it.
// Can also write records to the audit pipe of such a volume.

#include "Arguments.h"
#include "BuildPaths.h"
#include "foundation/files/FileDescriptor.h"
#include "foundation/formats/PropertyList.h"
#include "platform/posix/HostFileSystem.h"
#include "volume/LiveActivity.h"
#include "volume/SystemVolume.h"
#include "volume/WorkingDay.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace {

using namespace sentrova;
using namespace sentrova::testing;

constexpr const char* kUsage =
    R"(usage: make-volume DIR [options]
       make-volume --live DIR [--per-second N] [--count N] [--seed N]

Creates DIR/volume, the parts of a Mac's system volume that the agent reads, with audit trails of yesterday
from 08:00 to 18:00, and DIR/agent, an installation. DIR must be empty or absent.

  --server-port N         port of the audit server (default 8080)
  --scheme http|https     protocol of the audit server (default http)
  --events-per-request N  events per delivery (default 20)
  --realtime              collect from the audit pipe as well
  --durable               switch the durable mode on
  --log-level N           0 errors, 1 information, 2 debugging (default 1)
  --seed N                seed of the random day (default 1)
  --help                  this text
  --version               the version

With --live it writes records of current activity to the audit pipe of the existing volume in DIR, until it is
stopped; with --durable to the open trail first.

  --per-second N          records per second (default 2)
  --count N               stop after that many records
)";

struct Options {
    std::string folder;
    std::uint32_t serverPort = 8080;
    std::string scheme = "http";
    std::uint32_t eventsPerRequest = 20;
    bool realtime = false;
    bool durable = false;
    std::uint32_t logLevel = 1;
    std::uint32_t seed = 1;
    bool live = false;
    std::uint32_t perSecond = 2;
    std::optional<std::uint32_t> count;
};

Options parse(Arguments arguments) {
    Options options;
    while (const auto argument = arguments.next()) {
        if (*argument == "--live") {
            options.live = true;
        } else if (*argument == "--per-second") {
            options.perSecond = arguments.numberOf(*argument, 1, 1000000);
        } else if (*argument == "--count") {
            options.count = arguments.numberOf(*argument, 1, 4294967295);
        } else if (*argument == "--server-port") {
            options.serverPort = arguments.numberOf(*argument, 1, 65535);
        } else if (*argument == "--scheme") {
            options.scheme = arguments.valueOf(*argument);
        } else if (*argument == "--events-per-request") {
            options.eventsPerRequest = arguments.numberOf(*argument, 1, 1000000);
        } else if (*argument == "--realtime") {
            options.realtime = true;
        } else if (*argument == "--durable") {
            options.durable = true;
        } else if (*argument == "--log-level") {
            options.logLevel = arguments.numberOf(*argument, 0, 2);
        } else if (*argument == "--seed") {
            options.seed = arguments.numberOf(*argument, 0, 4294967295);
        } else if (argument->starts_with("-")) {
            throw unknownArgument(*argument);
        } else if (options.folder.empty()) {
            options.folder = *argument;
        } else {
            throw UsageError(fmt::format("only one folder is allowed, but there is also \"{}\"", *argument));
        }
    }
    if (options.scheme != "http" && options.scheme != "https") {
        throw UsageError(fmt::format("--scheme takes http or https, not \"{}\"", options.scheme));
    }
    if (options.folder.empty()) {
        throw UsageError("the folder is missing");
    }
    return options;
}

// Yesterday at 08:00 in the local zone.
std::chrono::seconds startOfYesterday() {
    auto day = fmt::localtime(static_cast<std::time_t>(epochSeconds(std::chrono::system_clock::now())));
    day.tm_mday -= 1;
    day.tm_hour = 8;
    day.tm_min = 0;
    day.tm_sec = 0;
    day.tm_isdst = -1;
    return std::chrono::seconds(std::mktime(&day));
}

Dictionary serverInfo(const Options& options) {
    return {
        {"DomainName", "corp.example.com"},
        {"AgentName", "mac-042"},
        {"AgentGuid", "5D1B7A60-2C0E-4C53-9A57-0F3D8A6E4B21"},
        {"DomainID", "1"},
        {"OrgAccessKey", "0f6a4c1e9b7d"},
        {"ServerIP", "127.0.0.1"},
        {"ServerFQDN", "localhost"},
        {"ServerName", "localhost"},
        {"Port", options.serverPort},
        {"Protocol", options.scheme},
        {"AgentPort", 8020},
        {"AgentProtocol", "http"},
        {"NATServerName", "-"},
        {"isEnabled", true},
        {"IsRealTime", options.realtime},
        {"EventsToRead",
         "AUE_auth_user,AUE_sudo,AUE_login,AUE_logout,AUE_telnet,AUE_rshd,AUE_su,AUE_ssh,AUE_openssh,AUE_lw_login,"
         "AUE_lw_logout,AUE_ssauthint"},
        {"NumberofEventsPerRequest", options.eventsPerRequest},
        {"MaxEventDataSize", 1},
        {"FetchInterval", 10800},
        {"SyncTime", 3600},
    };
}

// The task list of a new installation.
Dictionary shippedSchedules() {
    const auto bytes = platform::HostFileSystem().read(build::kShippedSchedules);
    const auto list = bytes ? PropertyList::parse(*bytes) : Result<Value>(bytes.error());
    if (!list || !list->dictionary()) {
        throw std::runtime_error(fmt::format("the task list cannot be read: {}", list ? "" : list.error().description));
    }
    return *list->dictionary();
}

void configure(SystemVolume& volume, const Options& options) {
    volume.writeConfiguration("Serverinfo.plist", serverInfo(options));
    volume.writeConfiguration("myconfigurations.plist", {{"TimestampOfLastEvent", "0"},
                                                         {"LogLevel", options.logLevel},
                                                         {"AgentVersion", "1.0.0"},
                                                         {"CommunicationType", 2},
                                                         {"DurableDelivery", options.durable}});
    volume.writeConfiguration("schedules.plist", shippedSchedules());
}

// Writes records to the pipe at the given rate, until the count is reached or the process is ended. It continues when a
// reader leaves. For the durable mode each record goes to the open trail first, as the kernel does it; without the mode
// an agent that reads both would leave out records of one second.
void live(const Options& options) {
    const auto path = options.folder + "/volume/dev/auditpipe";
    // Also opened for reading, so that opening and writing succeed without another reader.
    const FileDescriptor pipe(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (!pipe) {
        throw std::runtime_error(fmt::format("{}: {}", path, std::generic_category().message(errno)));
    }
    std::ofstream trail;
    if (options.durable) {
        trail.open(options.folder + "/volume/var/audit/current", std::ios::binary | std::ios::app);
        if (!trail) {
            throw std::runtime_error("the trail that is being written cannot be opened");
        }
    }
    LiveActivity activity(options.seed);
    const auto apart = std::chrono::nanoseconds(std::chrono::seconds(1)) / options.perSecond;
    for (std::uint32_t written = 0; !options.count || written < *options.count; ++written) {
        const auto bytes = activity.next(std::chrono::seconds(epochSeconds(std::chrono::system_clock::now()))).bytes();
        if (options.durable) {
            trail.write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes)).flush();
        }
        if (::write(pipe.get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
            throw std::runtime_error(fmt::format("{}: {}", path, std::generic_category().message(errno)));
        }
        std::this_thread::sleep_for(apart);
    }
}

void make(const Options& options) {
    SystemVolume volume{std::filesystem::path(options.folder)};
    const auto start = startOfYesterday();
    const WorkingDay day(start, options.seed);
    day.putOn(volume);
    configure(volume, options);
    const bool consoleGiven = ::chown(volume.console().c_str(), 501, 20) == 0;

    fmt::print("A Mac with macOS 14.6.1 in {}\n", volume.volume().string());
    std::size_t records = 0;
    for (const auto& [name, content] : day.trails()) {
        records += content.records();
        fmt::print("  trail {}: {} records, {} bytes\n", name, content.records(), content.bytes().size());
    }
    fmt::print("  {} records: {} of logons and the like, {} others, {} that name the trail's file\n", records,
               day.logonRecords(), day.otherRecords(), records - day.logonRecords() - day.otherRecords());
    fmt::print("  a working day from {:%Y-%m-%d %H:%M} on\n", fmt::localtime(static_cast<std::time_t>(start.count())));
    fmt::print("  local users anna and eva; bruno, carla and dora of the domain CORP\n");
    if (!consoleGiven) {
        fmt::print("  the console stays with this user: giving it to anna (501) was not permitted\n");
    }
    fmt::print("An installation in {}, for a server at {}://localhost:{}\n", volume.agent().string(), options.scheme,
               options.serverPort);
}

}  // namespace

int main(int argc, char** argv) {
    return runTool("make-volume", kUsage, argc, argv, [](const Arguments& arguments) {
        const auto options = parse(arguments);
        if (options.live) {
            live(options);
        } else {
            make(options);
        }
    });
}
