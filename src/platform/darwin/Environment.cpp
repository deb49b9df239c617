#include "platform/Environment.h"

#include <crt_externs.h>

namespace sentrova::platform {

char** environment() {
    return *::_NSGetEnviron();
}

}  // namespace sentrova::platform
