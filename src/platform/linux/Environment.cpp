#include "platform/Environment.h"

#include <unistd.h>

#include <filesystem>
#include <system_error>

namespace sentrova::platform {

char** environment() {
    return environ;
}

std::string programPath() {
    std::error_code problem;
    return std::filesystem::read_symlink("/proc/self/exe", problem).string();
}

}  // namespace sentrova::platform
