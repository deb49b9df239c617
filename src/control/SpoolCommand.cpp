#include "control/SpoolCommand.h"

#include "control/AgentProcess.h"
#include "control/AgentQuestion.h"
#include "control/ControlHost.h"
#include "control/EventChoice.h"
#include "control/EventTable.h"
#include "control/JsonOutput.h"
#include "control/SpoolList.h"
#include "control/SpoolRetry.h"
#include "forwarding/SpoolFile.h"

#include <ctime>
#include <optional>

#include <fmt/format.h>

namespace sentrova::control {

SpoolCommand::SpoolCommand(CLI::App& program)
    : Command(program, "spool", "Show the batches that wait or were refused, and have them sent again") {
    constexpr const char* kJson = "Print JSON";
    app().require_subcommand(0, 1);
    app().add_flag("--json", json_, kJson);
    app().add_subcommand("list", "List the batches (also without a command)")->add_flag("--json", json_, kJson);
    show_ = app().add_subcommand("show", "Show the events of a batch");
    show_->add_flag("--json", json_, kJson);
    show_->add_option("NAME", name_, "The name of a file of the spool")->required()->type_name("");
    retry_ = app().add_subcommand("retry", "Have the agent send refused batches again");
    retry_->add_flag("--all", all_, "All batches that were refused or not delivered");
    retry_->add_option("NAME", names_, "The names of the batches")->type_name("");
}

void SpoolCommand::checkArguments() {
    if (retry_->parsed() && names_.empty() != all_) {
        throw CLI::ValidationError("retry", all_ ? "--all and names exclude each other" : "name batches, or use --all");
    }
    if (retry_->parsed() && json_) {
        throw CLI::ValidationError("--json", "retry prints no table");
    }
}

int SpoolCommand::run(Console& console, const InstallationFolder& installation) {
    ControlHost host;
    if (const auto root = host.files().status(installation.root()); !root) {
        console.problem(fmt::format("there is no installation: {}", root.error().description));
        return ExitStatus::kFailed;
    }
    const auto content = SpoolContent::of(installation, host.files());
    if (!content) {
        console.problem(fmt::format("the spool cannot be read: {}", content.error().description));
        return ExitStatus::kFailed;
    }
    if (show_->parsed()) {
        return show(console, *content);
    }
    if (retry_->parsed()) {
        SpoolRetry retry(console, installation, host.files(), *content);
        all_ ? retry.chooseAll() : retry.choose(names_);
        return retry.request();
    }
    return list(console, installation, host.files(), *content);
}

int SpoolCommand::list(Console& console, const InstallationFolder& installation, FileSystem& files,
                       const SpoolContent& content) const {
    const auto process = AgentProcess::of(installation);
    std::optional<Dictionary> agent;
    if (process.isRunning()) {
        agent = AgentQuestion(installation, files).ask(process).value_or(Dictionary());
    } else {
        // A running agent may just be writing the journal.
        for (const auto& problem : content.problems()) {
            console.problem(problem);
        }
    }
    const auto now = std::time(nullptr);
    const auto described = content.described(agent ? &*agent : nullptr);
    if (json_) {
        printJson(console, spoolJson(described, content.openEvents(), now));
    } else {
        console.print(spoolText(described, content.openEvents(), now, console));
    }
    return ExitStatus::kDone;
}

int SpoolCommand::show(Console& console, const SpoolContent& content) const {
    const auto shown = EventTable::visible(name_);
    if (name_.find('/') != std::string::npos) {
        console.problem(fmt::format("{}: a name of the spool has no folder", shown));
        return ExitStatus::kFailed;
    }
    if (!content.contains(name_)) {
        console.problem(fmt::format("{}: is not in the spool; \"sentrovactl spool list\" has the names", shown));
        return ExitStatus::kFailed;
    }
    const auto text = content.textOf(name_);
    const auto events = text ? SpoolFile::eventsOf(*text) : Result<Array>(text.error());
    if (!events) {
        console.problem(fmt::format("{}: is no batch of events: {}", shown, events.error().description));
        return ExitStatus::kFailed;
    }
    if (json_) {
        console.print(eventsJson(shown, *events));
        return ExitStatus::kDone;
    }
    EventChoice choice;
    choice.format = "table";
    const auto table = choice.writer(console, /*isLive=*/false);
    std::string lines;
    table->begin(lines);
    for (const auto& event : *events) {
        table->write(event, lines);
    }
    table->end(lines);
    console.print(lines);
    return ExitStatus::kDone;
}

}  // namespace sentrova::control
