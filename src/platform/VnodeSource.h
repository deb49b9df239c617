// Hears of changes of one file's attributes (owner, mode, times set by hand), not of its content.

#pragma once

#include <functional>
#include <memory>
#include <string>

namespace sentrova::platform {

class VnodeSource {
  public:
    virtual ~VnodeSource() = default;

    // Watches what the path names now. Inactive until resumed. Null when the path cannot be opened or watched. The
    // handler runs on a thread of the source's own, once for each batch of changes.
    static std::unique_ptr<VnodeSource> attributesOf(const std::string& path, std::function<void()> handler);

    // Begins to deliver; changes between creation and this call count as one. Returns false when that is not possible.
    virtual bool resume() = 0;

    // Ends the watch for good and gives the descriptors back. When it returns the handler is not running and is not
    // called again; called from the handler itself it only ends the watch.
    virtual void cancel() = 0;
};

}  // namespace sentrova::platform
