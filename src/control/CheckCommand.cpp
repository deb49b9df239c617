#include "control/CheckCommand.h"

#include "control/ControlHost.h"
#include "control/JsonOutput.h"
#include "service/ConfigurationFindings.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <system_error>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

Value jsonOf(const ConfigurationFinding& finding) {
    return Dictionary{{"file", finding.file},
                      {"key", finding.key ? Value(*finding.key) : Value()},
                      {"problem", finding.problem},
                      {"instead", finding.instead}};
}

}  // namespace

CheckCommand::CheckCommand(CLI::App& program)
    : Command(program, "check",
              "Check the configuration files: a line for each mistake, and what the agent does instead") {
    app().add_option("DIR", folder_,
                     "The folder of Serverinfo.plist, myconfigurations.plist and schedules.plist (default: the "
                     "installation's conf)");
    app().add_flag("--json", json_, "Print JSON");
}

int CheckCommand::run(Console& console, const InstallationFolder& installation) {
    ControlHost host;
    const auto folder = folder_.value_or(installation.conf());
    // A link that the arguments name is followed; links to the files are judged as the agent judges them.
    std::error_code error;
    const auto found = std::filesystem::canonical(folder, error);
    if (error || !std::filesystem::is_directory(found)) {
        console.problem(
            fmt::format("{} cannot be checked: {}", folder, error ? error.message() : "it is not a folder"));
        return ExitStatus::kFailed;
    }
    const auto findings = findingsIn(host.files(), found.string());
    if (json_) {
        Array list;
        std::ranges::transform(findings, std::back_inserter(list), jsonOf);
        printJson(console, Dictionary{{"findings", std::move(list)}});
    } else {
        for (const auto& finding : findings) {
            console.print(finding.text() + "\n");
        }
        if (findings.empty() && console.isErrorTerminal()) {
            console.flush();
            fmt::print(stderr, "No mistake was found in {}.\n", folder);
        }
    }
    return findings.empty() ? ExitStatus::kDone : ExitStatus::kFailed;
}

}  // namespace sentrova::control
