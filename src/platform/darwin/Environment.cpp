#include "platform/Environment.h"

#include <crt_externs.h>

#include <cstdint>
#include <filesystem>
#include <system_error>

#include <mach-o/dyld.h>

namespace sentrova::platform {

char** environment() {
    return *::_NSGetEnviron();
}

std::string programPath() {
    std::uint32_t size = 0;
    ::_NSGetExecutablePath(nullptr, &size);
    std::string path(size, '\0');
    if (::_NSGetExecutablePath(path.data(), &size) != 0) {
        return {};
    }
    std::error_code problem;
    return std::filesystem::canonical(path.c_str(), problem).string();
}

}  // namespace sentrova::platform
