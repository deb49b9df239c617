#include "platform/posix/Process.h"

#include <unistd.h>

#include <csignal>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

// Runs the program and returns its exit status and its output.
std::pair<int, std::string> runShell(const std::string& script) {
    platform::Process process("/bin/sh", {"-c", script});
    process.launch();
    const auto output = process.readDataToEndOfFile();
    process.waitUntilExit();
    return {process.terminationStatus(), std::string(output.begin(), output.end())};
}

TEST(ProcessTest, ProgramInheritsStandardStreamsOnlyAndItsStatusAndOutputAreReturned) {
    const std::pair<std::string, std::pair<int, std::string>> cases[] = {
        {"printf out; echo complaint >&2; exit 3", {3, "out"}},
        {"kill -9 $$", {SIGKILL, ""}},
        {"head -c 300000 /dev/zero | tr '\\0' x", {0, std::string(300'000, 'x')}},
    };
    for (const auto& [script, expected] : cases) {
        EXPECT_EQ(runShell(script), expected) << script;
    }
    const FileDescriptor forgotten(::dup(STDIN_FILENO));
    EXPECT_EQ(runShell("ls /dev/fd/" + std::to_string(forgotten.get()) + " 2>/dev/null").second, "");
    // The system does not tell the status then, which counts as a failure.
    auto* const before = std::signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(runShell("exit 3").first, platform::Process::kUnknownStatus);
    std::signal(SIGCHLD, before);
}

TEST(ProcessTest, ProgramThatCannotBeStartedIsAnError) {
    for (const auto* path : {"/nowhere/tool", "/dev/null", "/"}) {
        platform::Process process(path, {});
        EXPECT_THROW(process.launch(), platform::ProcessLaunchError) << path;
        EXPECT_TRUE(process.readDataToEndOfFile().empty());
        process.terminate();
        process.waitUntilExit();
    }
}

TEST(ProcessTest, TerminationReachesTheChildOfAnAgentThatIgnoresTheSignal) {
    auto* const before = std::signal(SIGTERM, SIG_IGN);
    platform::Process process("/bin/sh", {"-c", "echo ready; exec tail -f /dev/null"});
    process.launch();
    EXPECT_EQ(process.readAvailableData(), (Data{'r', 'e', 'a', 'd', 'y', '\n'}));
    process.terminate();
    process.waitUntilExit();
    std::signal(SIGTERM, before);
    EXPECT_EQ(process.terminationStatus(), SIGTERM);
}

}  // namespace
}  // namespace sentrova
