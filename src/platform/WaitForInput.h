// Waits for input on a device without missing a request to stop.

#pragma once

namespace sentrova::platform {

enum class InputWait { ready, woken, failed };

// Blocks until `device` can be read (or has ended), or `wake` can. `woken` wins when both can; errno says why it
// failed.
InputWait waitForInput(int device, int wake);

}  // namespace sentrova::platform
