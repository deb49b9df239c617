#include "control/StatusCommand.h"

#include "control/ControlHost.h"
#include "control/JsonOutput.h"
#include "control/StatusFormats.h"
#include "control/StatusReport.h"

#include <ctime>

namespace sentrova::control {

namespace {

StatusReport reportOf(const InstallationFolder& installation) {
    ControlHost host;
    return StatusReport::of(installation, host.files(), std::time(nullptr));
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
        printJson(console, report.json());
    } else if (asMetrics_) {
        console.print(statusMetrics(report.json()));
    } else {
        console.print(statusText(report.json(), std::time(nullptr), console));
    }
    return statusOf(report);
}

}  // namespace sentrova::control
