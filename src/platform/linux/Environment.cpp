#include "platform/Environment.h"

#include <unistd.h>

namespace sentrova::platform {

char** environment() {
    return environ;
}

}  // namespace sentrova::platform
