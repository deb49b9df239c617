#include "control/ProbeCommand.h"

#include "control/AddressReport.h"
#include "control/ControlHost.h"
#include "control/JsonOutput.h"

#include <fmt/format.h>

namespace sentrova::control {

ProbeCommand::ProbeCommand(CLI::App& program)
    : Command(
          program, "probe",
          "Try each address of the server: name, connection, TLS, and an answer to a request that delivers nothing") {
    app().add_flag("--json", json_, "Print JSON");
}

int ProbeCommand::run(Console& console, const InstallationFolder& installation) {
    ControlHost host;
    const auto configuration = configurationIn(host.files(), installation.conf());
    if (!configuration) {
        console.problem(configuration.error().description);
        return ExitStatus::kFailed;
    }
    Array addresses;
    bool isAny = false;
    const int working = probeAddresses(*configuration, [&](const AddressReport& report) {
        isAny = true;
        if (json_) {
            addresses.emplace_back(report.json());
            return;
        }
        const auto colour = report.works() ? Console::Colour::green : Console::Colour::red;
        console.print(fmt::format("{} {}\n", console.coloured(colour, report.address), report.text()));
        console.flush();
    });
    if (json_) {
        printJson(console, Dictionary{{"addresses", std::move(addresses)}});
    }
    if (!isAny) {
        console.problem(kNoAddress);
    }
    return working > 0 ? ExitStatus::kDone : ExitStatus::kFailed;
}

}  // namespace sentrova::control
