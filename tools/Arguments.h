// The command line of the tools. All answer --help and --version, and reject wrong arguments in the same way.

#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string_view>

namespace sentrova::testing {

// The text names the wrong argument and the reason.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Hands out the arguments in order, as views of the process's argument texts.
class Arguments {
  public:
    explicit Arguments(std::span<char* const> words) : words_(words) {}

    // Returns nothing at the end.
    std::optional<std::string_view> next();

    // The next argument, as the value of `option`. Throws UsageError if it is missing or is itself an option.
    std::string_view valueOf(std::string_view option);

    // The same for a decimal number. Also throws UsageError if the value is not one or not in the range.
    std::uint32_t numberOf(std::string_view option, std::uint32_t least, std::uint32_t most);

  private:
    std::span<char* const> words_;
};

// The error for an unknown argument.
UsageError unknownArgument(std::string_view argument);

// The body of a tool's main; returns the exit status. Prints the usage or the version, with status 0, if any argument
// asks for it; otherwise runs the tool. An exception becomes a message on standard error, with status 64 (sysexits'
// "usage error") for a UsageError and 1 for any other.
int runTool(std::string_view name, std::string_view usage, int argc, char** argv,
            const std::function<void(Arguments)>& run);

}  // namespace sentrova::testing
