// The command line of the tools, which all answer --help and --version and refuse wrong arguments alike.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string_view>

namespace sentrova::testing {

// The text says which argument is wrong, and why.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Hands out arguments one after another, as views of the texts that the process was given.
class Arguments {
  public:
    explicit Arguments(std::span<char* const> words) : words_(words) {}

    // Nothing at the end.
    std::optional<std::string_view> next();

    // The next argument, as the value of an option. Throws UsageError when it is missing or is an option itself.
    std::string_view valueOf(std::string_view option);

    // Throws UsageError also for a value that is no decimal number of the range.
    std::uint32_t numberOf(std::string_view option, std::uint32_t least, std::uint32_t most);

  private:
    std::span<char* const> words_;
};

// For an argument that the tool does not know.
UsageError unknownArgument(std::string_view argument);

// The whole of a tool's main; returns the exit status. Prints the usage or the version when any argument asks for it,
// with status 0; runs the tool otherwise. An exception becomes a message on standard error: with status 64 (sysexits'
// "usage error") for a UsageError, with 1 for any other.
int runTool(std::string_view name, std::string_view usage, int argc, char** argv,
            const std::function<void(Arguments)>& run);

}  // namespace sentrova::testing
