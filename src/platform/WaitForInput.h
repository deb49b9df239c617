// Waits for input on a device and for a request to stop at the same time.

#pragma once

namespace sentrova::platform {

enum class InputWait { ready, woken, failed };

// Blocks until `device` or `wake` is readable or at its end. If both are, returns `woken`. After `failed`, errno holds
// the reason.
InputWait waitForInput(int device, int wake);

}  // namespace sentrova::platform
