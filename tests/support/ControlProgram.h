// Runs sentrovactl of this build as a user would.

#pragma once

#include <string>
#include <vector>

namespace sentrova::testing {

struct ControlOutcome {
    int status = 0;
    std::string output;
    std::string problems;
};

// root: where the test's user is another one, the root of a new user namespace. ordinary: a user without rights, who
// may use the test's files all the same.
enum class ControlUser { own, root, ordinary };

// Runs the program with the arguments and waits for its end. `input` is its standard input. `variables` are added to
// its environment, each as "NAME=VALUE".
ControlOutcome runControl(const std::vector<std::string>& arguments, const std::string& input = {},
                          const std::vector<std::string>& variables = {}, ControlUser user = ControlUser::own);

}  // namespace sentrova::testing
