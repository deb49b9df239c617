#include "platform/OperatingSystem.h"

#include "platform/darwin/CoreFoundationText.h"

#include <pthread.h>
#include <sys/sysctl.h>
#include <time.h>
#include <unistd.h>

#include <array>

#include <SystemConfiguration/SystemConfiguration.h>

namespace sentrova::platform {

std::optional<OperatingSystemVersion> operatingSystemVersion(FileSystem& /*files*/) {
    std::array<char, 64> text{};
    std::size_t size = text.size() - 1;
    if (::sysctlbyname("kern.osproductversion", text.data(), &size, nullptr, 0) != 0) {
        return std::nullopt;
    }
    return versionFromText(text.data());
}

std::string localizedHostName() {
    const CoreFoundationHandle<CFStringRef> name(::SCDynamicStoreCopyComputerName(nullptr, nullptr));
    if (auto text = textOf(name.get())) {
        return *std::move(text);
    }
    // The computer has no name set.
    std::array<char, 256> host{};
    return ::gethostname(host.data(), host.size() - 1) == 0 ? host.data() : "";
}

std::uint64_t currentThreadId() {
    thread_local const auto id = [] {
        std::uint64_t number = 0;
        ::pthread_threadid_np(nullptr, &number);
        return number;
    }();
    return id;
}

std::chrono::steady_clock::time_point timeAwake() {
    // The C++ library's steady clock continues while this host sleeps.
    return std::chrono::steady_clock::time_point(std::chrono::nanoseconds(::clock_gettime_nsec_np(CLOCK_UPTIME_RAW)));
}

}  // namespace sentrova::platform
