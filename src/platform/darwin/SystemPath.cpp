#include "platform/SystemPath.h"

namespace sentrova::platform {

std::string systemPath(std::string_view path) {
    return std::string(path);
}

}  // namespace sentrova::platform
