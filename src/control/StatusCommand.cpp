#include "control/StatusCommand.h"

#include "control/StatusFormats.h"
#include "control/StatusReport.h"
#include "foundation/formats/Json.h"
#include "foundation/run/Current.h"
#include "platform/icu/IcuEncodings.h"
#include "platform/posix/HostFileSystem.h"

#include <ctime>

namespace sentrova::control {

namespace {

StatusReport reportOf(const InstallationFolder& installation) {
    platform::HostFileSystem files;
    // Property lists of the configuration may be in any encoding.
    const auto encodings = platform::makeIcuEncodings();
    const Current<Encodings>::Publication publication(*encodings);
    return StatusReport::of(installation, files, std::time(nullptr));
}

int statusOf(const StatusReport& report) {
    switch (report.state()) {
        case StatusReport::State::healthy:
            return ExitStatus::kDone;
        case StatusReport::State::unhealthy:
            return ExitStatus::kFailed;
        case StatusReport::State::notRunning:
            break;
    }
    return ExitStatus::kNotRunning;
}

}  // namespace

StatusCommand::StatusCommand(CLI::App& program)
    : Command(program, "status", "Tell whether the agent is healthy, and what it has done") {
    auto* const json = app().add_flag("--json", asJson_, "As JSON");
    app().add_flag("--prometheus", asMetrics_, "In Prometheus' text format")->excludes(json);
}

int StatusCommand::run(Console& console, const InstallationFolder& installation) {
    const auto report = reportOf(installation);
    if (asJson_) {
        const auto text = Json::write(report.json());
        console.print(text ? *text + "\n" : "");
    } else if (asMetrics_) {
        console.print(statusMetrics(report.json()));
    } else {
        console.print(statusText(report.json(), std::time(nullptr), console));
    }
    return statusOf(report);
}

std::string StatusCommand::textOf(const Console& console, const InstallationFolder& installation) {
    return statusText(reportOf(installation).json(), std::time(nullptr), console);
}

}  // namespace sentrova::control
