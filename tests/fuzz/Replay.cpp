// Runs a fuzz target over the files of a folder, where it is built without the fuzzer.

#include "foundation/FileSystem.h"
#include "fuzz/Fuzz.h"

#include <filesystem>

int main(int count, char** arguments) {
    using namespace sentrova;
    if (count != 2) {
        fmt::print(stderr, "usage: {} FOLDER\n", arguments[0]);
        return 64;
    }
    const auto folder = std::filesystem::absolute(arguments[1]).string();
    const auto names = FileSystem::shared().names(folder).optional().value_or(std::vector<std::string>());
    for (const auto& name : names) {
        fmt::print(stderr, "{}\n", name);
        // The target may put other files in the host's place.
        FileSystem host;
        testing::fuzz(*host.read(folder + "/" + name));
    }
    return names.empty() ? 1 : 0;
}
