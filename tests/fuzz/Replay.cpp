// Runs a fuzz target over the files of a folder, in builds without the fuzzer.

#include "fuzz/Fuzz.h"
#include "platform/posix/HostFileSystem.h"

#include <filesystem>

int main(int count, char** arguments) {
    using namespace sentrova;
    if (count != 2) {
        fmt::print(stderr, "usage: {} FOLDER\n", arguments[0]);
        return 64;
    }
    const auto folder = std::filesystem::absolute(arguments[1]).string();
    const auto names = platform::HostFileSystem().names(folder).optional().value_or(std::vector<std::string>());
    for (const auto& name : names) {
        fmt::print(stderr, "{}\n", name);
        testing::fuzz(*platform::HostFileSystem().read(folder + "/" + name));
    }
    return names.empty() ? 1 : 0;
}
