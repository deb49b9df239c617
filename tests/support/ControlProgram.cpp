#include "support/ControlProgram.h"

#include "BuildPaths.h"

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <fmt/format.h>

namespace sentrova::testing {

namespace {

std::string quoted(const std::string& word) {
    std::string text = "'";
    for (const char c : word) {
        text += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return text + "'";
}

std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// A folder that is removed with the object.
class Folder {
  public:
    Folder() {
        static std::atomic<int> made = 0;
        path = std::filesystem::temp_directory_path() / fmt::format("sentrovactl-{}-{}", ::getpid(), ++made);
        std::filesystem::create_directories(path);
    }
    ~Folder() { std::filesystem::remove_all(path); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::filesystem::path path;
};

}  // namespace

ControlOutcome runControl(const std::vector<std::string>& arguments, const std::string& input,
                          const std::vector<std::string>& variables, ControlUser user) {
    const Folder folder;
    std::ofstream(folder.path / "in", std::ios::binary) << input;
    std::string command = "exec ";
    if (user == ControlUser::ordinary) {
        // Without a mapping of the users, the program sees the user id of nobody.
        command += "unshare -U ";
    } else if (user == ControlUser::root && ::geteuid() != 0) {
        command += "unshare -r ";
    }
    command += "env";
    for (const auto& variable : variables) {
        command += " " + quoted(variable);
    }
    command += " " + quoted(build::kControl);
    for (const auto& argument : arguments) {
        command += " " + quoted(argument);
    }
    const auto file = [&](const char* name) { return quoted((folder.path / name).string()); };
    command += fmt::format(" <{} >{} 2>{}", file("in"), file("out"), file("err"));
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contentOf(folder.path / "out"),
            contentOf(folder.path / "err")};
}

}  // namespace sentrova::testing
