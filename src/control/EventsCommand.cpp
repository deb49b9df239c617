#include "control/EventsCommand.h"

#include "collection/TrailFolder.h"
#include "control/EventPipeline.h"
#include "control/EventReader.h"
#include "control/ProgressBar.h"
#include "control/ReportContext.h"
#include "control/TimeArgument.h"
#include "control/TrailInput.h"
#include "platform/Directory.h"
#include "platform/SystemPath.h"
#include "platform/posix/HostFileSystem.h"
#include "platform/posix/SystemClock.h"
#include "platform/volume/VolumeDirectory.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

constexpr std::string_view kStandardInput = "-";
constexpr const char* kConsole = "/dev/console";
constexpr std::string_view kCurrent = "current";
constexpr std::string_view kFinishedEarlier = "in a trail that was last changed before the newest record read";

std::optional<std::int64_t> timeOf(const char* option, const std::optional<std::string>& text, std::int64_t now) {
    if (!text) {
        return std::nullopt;
    }
    const auto time = timeArgument(*text, now);
    if (!time) {
        throw CLI::ValidationError(option, fmt::format("\"{}\" is no time; write {}", *text, kTimeForms));
    }
    return time;
}

// The Mac whose trails are read, as folders on this host.
class Mac {
  public:
    // Without a folder, this host, or the volume that stands for it.
    Mac(const std::optional<std::string>& folder, FileSystem& files, Clock& clock) {
        if (!folder) {
            trails_ = platform::systemPath(TrailFolder::kPath);
            console_ = platform::systemPath(kConsole);
            directory_ = platform::Directory::make(files, clock);
            return;
        }
        auto root = *folder;
        while (root.ends_with('/')) {
            root.pop_back();
        }
        // The data volume of a Mac's disk holds /private alone. The link /var is on the system's volume.
        if (!files.exists(root + "/var") && files.exists(root + "/private/var")) {
            root += "/private";
        }
        trails_ = root + TrailFolder::kPath;
        console_ = root + kConsole;
        directory_ = std::make_unique<platform::VolumeDirectory>(files, clock, [root] { return root; });
    }

    const std::string& trails() const { return trails_; }
    const std::string& console() const { return console_; }
    platform::Directory& directory() const { return *directory_; }

  private:
    std::string trails_;
    std::string console_;
    std::unique_ptr<platform::Directory> directory_;
};

// A trail as the agent lists it.
struct ListedTrail {
    // Trails without a date come first.
    std::optional<Date> modified;
    std::string path;
    std::uint64_t size = 0;
    bool isFolder = false;
    bool isRegular = false;

    friend bool operator<(const ListedTrail& one, const ListedTrail& other) {
        return std::tie(one.modified, one.path) < std::tie(other.modified, other.path);
    }
};

std::uint64_t sizeOf(FileSystem& files, const std::vector<std::string>& paths) {
    std::uint64_t total = 0;
    for (const auto& path : paths) {
        const auto status = files.status(path);
        total += status && status->isRegular ? status->size : 0;
    }
    return total;
}

// One run of the command.
class Report {
  public:
    Report(const EventChoice& choice, const Mac& mac, FileSystem& files, Clock& clock, Console& console,
           std::uint64_t bytes)
        : files_(files),
          console_(console),
          progress_(console.isErrorTerminal() && !console.isTerminal(), bytes),
          context_({mac.directory(), files, clock, mac.console()}, choice.domain, choice.host),
          writer_(choice.writer(console, /*isLive=*/false)),
          pipeline_(*writer_, console),
          reader_(choice, context_, [this](Dictionary event) { pipeline_.add(std::move(event)); }),
          tellsExcluded_(choice.excluded) {
        context_.addConsoleOwner();
    }

    void readNamed(const std::vector<std::string>& trails) {
        reader_.beginReader();
        for (const auto& trail : trails) {
            if (trail == kStandardInput) {
                read(*TrailInput::standardInput(), "standard input");
            } else if (const auto input = open(trail)) {
                read(*input, trail);
            }
        }
    }

    // In the agent's order, each by a reader of its own.
    void readVolume(std::vector<ListedTrail> trails) {
        std::ranges::sort(trails, std::less<>());
        for (const auto& trail : trails) {
            if (!trail.isRegular && !trail.isFolder && trail.modified) {
                tell(trail.path, "is not a regular file");
            } else if (const auto input = open(trail.path)) {
                readListed(trail, *input);
            }
        }
    }

    void tell(const std::string& path, const std::string& problem) {
        progress_.hide();
        console_.problem(fmt::format("{}: {}", path, problem));
        hasProblem_ = true;
    }

    // The exit status.
    int finish() {
        pipeline_.finish();
        progress_.hide();
        return hasProblem_ || pipeline_.hasFailed() ? ExitStatus::kFailed : ExitStatus::kDone;
    }

  private:
    // Null if the trail cannot be opened.
    std::unique_ptr<TrailInput> open(const std::string& path) {
        if (pipeline_.hasFailed()) {
            return nullptr;
        }
        auto input = TrailInput::open(path);
        if (!input) {
            tell(path, input.error().code == EISDIR ? "is a folder, not a trail"
                                                    : "cannot be opened: " + input.error().description);
            return nullptr;
        }
        return *std::move(input);
    }

    void readListed(const ListedTrail& trail, TrailInput& input) {
        const auto status = files_.status(trail.path);
        const auto lastRead = dateFromEpoch(static_cast<double>(reader_.lastRead()));
        if (!status || lastRead <= status->modificationDate) {
            reader_.beginReader();
            read(input, trail.path);
        } else if (tellsExcluded_) {
            reader_.readSkipped(input, pipeline_.hasFailed(), kFinishedEarlier);
        }
    }

    void read(TrailInput& input, const std::string& name) {
        input.onRead([this](std::size_t bytes) { progress_.advance(bytes); });
        auto outcome = reader_.read(input, pipeline_.hasFailed());
        if (outcome.end == bsm::RecordReader::End::kReadError) {
            outcome.faults += fmt::format("{}cannot be read from offset {} on: {}", outcome.faults.empty() ? "" : "; ",
                                          outcome.position, posixError(input.problem()).description);
        }
        const auto size = input.size();
        const bool isCut =
            outcome.end == bsm::RecordReader::End::kGarbage || outcome.end == bsm::RecordReader::End::kTruncatedRecord;
        if (isCut && size && *size > outcome.position) {
            outcome.faults += fmt::format("; {} bytes are left unread", *size - outcome.position);
        }
        if (!outcome.faults.empty()) {
            tell(name, outcome.faults);
        }
    }

    FileSystem& files_;
    Console& console_;
    ProgressBar progress_;
    ReportContext context_;
    const std::unique_ptr<EventWriter> writer_;
    EventPipeline pipeline_;
    EventReader reader_;
    const bool tellsExcluded_;
    bool hasProblem_ = false;
};

// Without `current`, which the agent skips. Absent if the folder cannot be read; that is told.
std::optional<std::vector<ListedTrail>> list(FileSystem& files, const std::string& folder, Console& console) {
    const auto names = files.names(folder);
    if (!names) {
        console.problem(fmt::format("{}: the audit trails cannot be listed: {}", folder,
                                    posixError(static_cast<int>(names.error().code)).description));
        return std::nullopt;
    }
    std::vector<ListedTrail> trails;
    for (const auto& name : *names) {
        if (name != kCurrent) {
            ListedTrail trail;
            trail.path = folder + "/" + name;
            if (const auto status = files.status(trail.path)) {
                trail.modified = status->modificationDate;
                trail.size = status->size;
                trail.isFolder = status->isFolder;
                trail.isRegular = status->isRegular;
            }
            trails.push_back(std::move(trail));
        }
    }
    return trails;
}

}  // namespace

EventsCommand::EventsCommand(CLI::App& program)
    : Command(program, "events", "Show what the agent reports from audit trails") {
    choice_.addTo(app());
    app()
        .add_option("--volume", volume_, "A Mac's disk in a folder: its trails, and its names of users and groups")
        ->type_name("DIR");
    app().add_option("--since", since_, "Only events from this time on")->type_name("T");
    app().add_option("--until", until_, "Only events before this time")->type_name("T");
    app()
        .add_option("TRAIL", trails_, "Trails, read in this order; - is standard input (default: the volume's trails)")
        ->type_name("");
    app().footer(fmt::format("T is {}.", kTimeForms));
}

void EventsCommand::checkArguments() {
    platform::SystemClock clock;
    const auto now = clock.epochSeconds();
    choice_.since = timeOf("--since", since_, now);
    choice_.until = timeOf("--until", until_, now);
    if (std::ranges::count(trails_, kStandardInput) > 1) {
        throw CLI::ValidationError("TRAIL", "standard input (-) can be read once");
    }
}

int EventsCommand::run(Console& console, const InstallationFolder& /*installation*/) {
    platform::HostFileSystem files;
    platform::SystemClock clock;
    if (volume_) {
        const auto status = files.status(*volume_);
        if (!status || !status->isFolder) {
            console.problem(fmt::format("{}: {}", *volume_,
                                        status ? "is not a folder; --volume takes a folder that holds a Mac's disk"
                                               : posixError(static_cast<int>(status.error().code)).description));
            return ExitStatus::kFailed;
        }
    }
    choice_.tellUnknownNames(console);
    const Mac mac(volume_, files, clock);
    if (!trails_.empty()) {
        Report report(choice_, mac, files, clock, console, sizeOf(files, trails_));
        report.readNamed(trails_);
        return report.finish();
    }
    auto trails = list(files, mac.trails(), console);
    if (!trails) {
        return ExitStatus::kFailed;
    }
    std::uint64_t bytes = 0;
    for (const auto& trail : *trails) {
        bytes += trail.isRegular ? trail.size : 0;
    }
    Report report(choice_, mac, files, clock, console, bytes);
    report.readVolume(*std::move(trails));
    return report.finish();
}

}  // namespace sentrova::control
