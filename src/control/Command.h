// A command of sentrovactl.

#pragma once

#include "control/Console.h"
#include "control/InstallationFolder.h"

#include <CLI/CLI.hpp>

namespace sentrova::control {

// The exit statuses that all commands share. Those of 64 and above are sysexits' own.
struct ExitStatus {
    static constexpr int kDone = 0;
    static constexpr int kFailed = 1;
    static constexpr int kNotRunning = 3;
    static constexpr int kUsage = 64;
    static constexpr int kNoRights = 77;
};

// A constructor declares the command and its options in the program's argument parser; the object holds the parsed
// values. One object per command and process.
class Command {
  public:
    virtual ~Command() = default;
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    // Whether the arguments name this command.
    bool isChosen() const { return app_->parsed(); }
    // Whether only root may run the command.
    virtual bool needsRoot() const { return false; }
    // Checks what the parser cannot check. Throws CLI::ValidationError for a wrong argument.
    virtual void checkArguments() {}
    // Runs the command and returns the exit status. Called at most once, after checkArguments.
    virtual int run(Console& console, const InstallationFolder& installation) = 0;

  protected:
    // The parser must outlive the command.
    Command(CLI::App& program, const std::string& name, const std::string& description)
        : app_(program.add_subcommand(name, description)) {}

    CLI::App& app() { return *app_; }
    const CLI::App& app() const { return *app_; }

  private:
    CLI::App* app_;
};

}  // namespace sentrova::control
