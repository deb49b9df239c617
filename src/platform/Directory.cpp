#include "platform/Directory.h"

#include <atomic>

namespace sentrova::platform {

namespace {
std::atomic<Directory*> installedDirectory{nullptr};
}  // namespace

Directory& Directory::shared() {
    auto* directory = installedDirectory.load(std::memory_order_acquire);
    return directory ? *directory : host();
}

void Directory::install(Directory* directory) {
    installedDirectory.store(directory, std::memory_order_release);
}

}  // namespace sentrova::platform
