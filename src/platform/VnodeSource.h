// Watches the attributes of one file (owner, mode, times that somebody sets), not its content.

#pragma once

#include <functional>
#include <memory>
#include <string>

namespace sentrova::platform {

class VnodeSource {
  public:
    virtual ~VnodeSource() = default;

    // Watches the file that the path names now, even if the path later names another. Inactive until resume. Null if
    // the path cannot be opened or watched. The handler runs on the source's own thread, once per batch of changes.
    static std::unique_ptr<VnodeSource> attributesOf(const std::string& path, std::function<void()> handler);

    // Starts the delivery. Changes between creation and this call are delivered as one. Returns false if the source is
    // already resumed or is cancelled.
    virtual bool resume() = 0;

    // Ends the watch for good, waits for a running handler and closes the descriptors. The handler is not called again.
    // Called from the handler itself, it only ends the watch.
    virtual void cancel() = 0;
};

}  // namespace sentrova::platform
