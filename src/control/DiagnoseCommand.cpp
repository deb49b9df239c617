#include "control/DiagnoseCommand.h"

#include "control/ControlHost.h"
#include "control/DiagnoseArchive.h"
#include "control/TimeArgument.h"

#include <array>
#include <ctime>
#include <map>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

namespace sentrova::control {

namespace {

// "20240305-091244", in the local zone.
std::string timeInName() {
    const auto fields = localFields(std::time(nullptr));
    std::array<char, 32> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y%m%d-%H%M%S", &fields)};
}

// A line per folder. There may be hundreds of logs.
std::string summaryOf(const std::vector<std::string>& members) {
    std::map<std::string, std::vector<std::string>> folders;
    for (const auto& member : members) {
        const auto slash = member.rfind('/');
        const bool isInside = slash != std::string::npos;
        folders[isInside ? member.substr(0, slash) + "/" : ""].push_back(isInside ? member.substr(slash + 1) : member);
    }
    std::string text;
    for (const auto& [folder, names] : folders) {
        constexpr std::size_t kMost = 8;
        text += names.size() > kMost
                    ? fmt::format("  {}: {} files\n", folder, names.size())
                    : fmt::format("  {}{}\n", folder.empty() ? "" : folder + ": ", fmt::join(names, " "));
    }
    return text;
}

}  // namespace

DiagnoseCommand::DiagnoseCommand(CLI::App& program)
    : Command(program, "diagnose",
              "Write an archive for a support case: configuration and logs without secrets, status, check and probe") {
    app()
        .add_option("-o", file_, "The archive (default: sentrova-diagnose-TIME.tar in the working directory)")
        ->type_name("FILE");
    app().add_flag("--no-events", withoutEvents_, "Mask the events in the logs too");
}

int DiagnoseCommand::run(Console& console, const InstallationFolder& installation) {
    const auto folder = "sentrova-diagnose-" + timeInName();
    const auto file = app().count("-o") > 0 ? file_ : folder + ".tar";
    ControlHost host;
    {
        // Fails now rather than after the questions, which may take a minute.
        const DiagnoseFile writable(file);
    }
    const auto events = withoutEvents_ ? DiagnoseMask::Events::masked : DiagnoseMask::Events::kept;
    const auto members = DiagnoseArchive(host, installation, events).write(file, folder);
    console.print(fmt::format("{} holds, in the folder {}:\n{}", file, folder, summaryOf(members)));
    console.print(fmt::format("Masked are OrgAccessKey, AgentAuthID and AgentUID{}.\n",
                              withoutEvents_ ? ", and the events in the logs" : ""));
    console.print(fmt::format("Look into the archive before you pass it on: it names {}hosts and addresses.\n",
                              withoutEvents_ ? "" : "users, "));
    return ExitStatus::kDone;
}

}  // namespace sentrova::control
