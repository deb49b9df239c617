#pragma once

namespace sentrova::platform {

// The process's environment variables, as child processes inherit them.
char** environment();

}  // namespace sentrova::platform
