#include "control/Program.h"

#include "control/CheckCommand.h"
#include "control/Command.h"
#include "control/DiagnoseCommand.h"
#include "control/EventsCommand.h"
#include "control/InstallationFolder.h"
#include "control/ProbeCommand.h"
#include "control/ReplayCommand.h"
#include "control/SpoolCommand.h"
#include "control/StatusCommand.h"
#include "control/SyncCommand.h"
#include "control/WatchCommand.h"

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

constexpr const char* kVersion = "sentrovactl " SENTROVA_VERSION;

std::vector<std::unique_ptr<Command>> commandsFor(CLI::App& program) {
    std::vector<std::unique_ptr<Command>> commands;
    commands.push_back(std::make_unique<StatusCommand>(program));
    commands.push_back(std::make_unique<CheckCommand>(program));
    commands.push_back(std::make_unique<EventsCommand>(program));
    commands.push_back(std::make_unique<WatchCommand>(program));
    commands.push_back(std::make_unique<SpoolCommand>(program));
    commands.push_back(std::make_unique<ProbeCommand>(program));
    commands.push_back(std::make_unique<SyncCommand>(program));
    commands.push_back(std::make_unique<ReplayCommand>(program));
    commands.push_back(std::make_unique<DiagnoseCommand>(program));
    return commands;
}

// --help and --version at every level. A flag takes no value.
void addVersion(CLI::App& app) {
    app.set_version_flag("--version", kVersion, "Print the version and exit");
    app.set_help_flag("-h,--help", "Print this help and exit");
    for (auto* const option :
         app.get_options([](const CLI::Option* each) { return each->get_items_expected_max() == 0; })) {
        option->disable_flag_override();
    }
    for (auto* const command : app.get_subcommands({})) {
        addVersion(*command);
    }
}

// The folder above the program's own, or the one that the arguments name.
std::string rootOf(const std::string& named, const std::string& programFolder) {
    const std::filesystem::path folder = named.empty() ? programFolder + "/.." : named;
    const auto root = std::filesystem::absolute(folder).lexically_normal();
    return (root.has_filename() ? root : root.parent_path()).string();
}

int runCommand(Command& command, Console& console, const InstallationFolder& installation) {
    if (command.needsRoot() && ::geteuid() != 0) {
        console.problem("only root may ask this of an installed agent; run it as root, with sudo");
        return ExitStatus::kNoRights;
    }
    try {
        const int status = command.run(console, installation);
        return console.flush() ? status : std::max(status, ExitStatus::kFailed);
    } catch (const std::exception& exception) {
        console.problem(exception.what());
        return ExitStatus::kFailed;
    }
}

}  // namespace

int runProgram(std::span<const char* const> arguments, const std::string& programFolder, Console& console) {
    CLI::App app("Answers an administrator's questions about the audit agent on this Mac.", "sentrovactl");
    std::string root;
    app.add_option("--root", root, "The agent's installation (default: the folder above this program's)")
        ->type_name("DIR");
    app.require_subcommand(1);
    const auto commands = commandsFor(app);
    addVersion(app);
    try {
        // The parser takes its arguments from the end.
        app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
        const auto chosen = std::ranges::find_if(commands, [](const auto& command) { return command->isChosen(); });
        (*chosen)->checkArguments();
        return runCommand(**chosen, console, InstallationFolder(rootOf(root, programFolder)));
    } catch (const CLI::CallForHelp&) {
        const CLI::App* asked = &app;
        std::string before;
        while (!asked->get_subcommands().empty()) {
            before += (before.empty() ? "" : " ") + asked->get_name();
            asked = asked->get_subcommands().front();
        }
        console.print(asked->help(before));
        return console.flush() ? ExitStatus::kDone : ExitStatus::kFailed;
    } catch (const CLI::CallForVersion&) {
        console.print(fmt::format("{}\n", kVersion));
        return console.flush() ? ExitStatus::kDone : ExitStatus::kFailed;
    } catch (const CLI::RequiredError& error) {
        // An unknown command counts as a missing one.
        const auto surplus = app.remaining();
        const auto reason = surplus.empty() ? error.what() : fmt::format("there is no command \"{}\"", surplus.front());
        console.problem(fmt::format("{}\nRun with --help for the usage.", reason));
        return ExitStatus::kUsage;
    } catch (const CLI::ParseError& error) {
        console.problem(fmt::format("{}\nRun with --help for the usage.", error.what()));
        return ExitStatus::kUsage;
    }
}

}  // namespace sentrova::control
