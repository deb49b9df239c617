#include "control/WatchCommand.h"

#include "collection/AuditSource.h"
#include "control/AgentProcess.h"
#include "control/EventReader.h"
#include "control/ReportContext.h"
#include "foundation/run/Current.h"
#include "platform/AuditPipeDevice.h"
#include "platform/SignalSource.h"
#include "platform/SystemPath.h"
#include "platform/posix/HostFileSystem.h"
#include "platform/posix/SystemClock.h"

#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

constexpr const char* kConsole = "/dev/console";

// A FIFO gives each record to one reader alone. The Mac's device gives each reader every record.
bool isFifo(const std::string& path) {
    struct stat host{};
    return ::stat(path.c_str(), &host) == 0 && S_ISFIFO(host.st_mode);
}

// Ends the reading when a signal arrives. Create it before any other thread starts.
class Ending {
  public:
    Ending()
        : signals_(platform::SignalSource::make(
              {{SIGINT, [state = state_] { state->end(); }}, {SIGTERM, [state = state_] { state->end(); }}})) {}

    // From now on, a signal interrupts the source.
    void interrupts(std::shared_ptr<AuditSource> source) {
        state_->source = std::move(source);
        signals_->resume();
    }

    bool hasCome() const { return state_->hasCome; }

  private:
    // The sources' threads run until the process ends.
    struct State {
        void end() {
            if (hasCome.exchange(true)) {
                // Nobody takes the output of what was read.
                std::_Exit(ExitStatus::kDone);
            }
            source->interrupt();
        }

        std::shared_ptr<AuditSource> source;
        std::atomic<bool> hasCome = false;
    };

    const std::shared_ptr<State> state_ = std::make_shared<State>();
    const std::unique_ptr<platform::SignalSource> signals_;
};

// Why the reading ended although nobody asked for it.
std::string problemOf(const EventReader::Outcome& outcome, int error) {
    using End = bsm::RecordReader::End;
    if (outcome.end == End::kReadError) {
        return fmt::format("cannot be read: {}", posixError(error).description);
    }
    return outcome.end == End::kEndOfData ? "has ended" : outcome.faults;
}

}  // namespace

WatchCommand::WatchCommand(CLI::App& program)
    : Command(program, "watch", "Show what the agent reports, as it happens, until Ctrl-C") {
    choice_.addTo(app());
}

int WatchCommand::run(Console& console, const InstallationFolder& installation) {
    const auto pipe = platform::systemPath(AuditSource::kPipe);
    if (isFifo(pipe) && AgentProcess::of(installation).isRunning()) {
        console.problem(
            fmt::format("{} is a FIFO, which gives each record to one reader: watching it would take the "
                        "records of the agent that runs in {}",
                        pipe, installation.root()));
        return ExitStatus::kFailed;
    }
    choice_.tellUnknownNames(console);
    Ending ending;
    platform::HostFileSystem files;
    platform::SystemClock clock;
    const Current<FileSystem>::Publication currentFiles(files);
    const auto device = platform::AuditPipeDevice::make();
    const Current<platform::AuditPipeDevice>::Publication currentDevice(*device);
    std::shared_ptr<AuditSource> source;
    try {
        source = AuditSource::open(AuditSource::kPipe);
    } catch (const AuditSourceError& error) {
        console.problem(fmt::format("{}: cannot be opened: {}; auditing must be on, and only root may read the device",
                                    pipe, error.systemReason()));
        return ExitStatus::kFailed;
    }

    const auto directory = platform::Directory::make(files, clock);
    LiveContext context({*directory, files, clock, platform::systemPath(kConsole)}, choice_.domain, choice_.host);
    context.addConsoleOwner();
    const auto writer = choice_.writer(console, /*isLive=*/true);
    std::atomic<bool> hasFailed = false;
    const auto show = [&console, &hasFailed](const std::string& text) {
        console.print(text);
        hasFailed = !console.flush();
    };
    std::string head;
    writer->begin(head);
    show(head);
    EventReader reader(choice_, context, [&](Dictionary event) {
        std::string text;
        writer->write(Value(std::move(event)), text);
        show(text);
    });
    reader.beginReader();
    ending.interrupts(source);
    const auto outcome = reader.read(*source, hasFailed);
    std::string tail;
    writer->end(tail);
    show(tail);
    if (hasFailed) {
        return ExitStatus::kFailed;
    }
    if (ending.hasCome()) {
        return ExitStatus::kDone;
    }
    console.problem(fmt::format("{}: {}", pipe, problemOf(outcome, source->problem())));
    return ExitStatus::kFailed;
}

}  // namespace sentrova::control
