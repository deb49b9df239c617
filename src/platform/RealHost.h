// Owns the real implementations of everything in Host.

#pragma once

#include "platform/Host.h"
#include "platform/curl/CurlUrlSession.h"
#include "platform/posix/HostFileSystem.h"
#include "platform/posix/SystemClock.h"

#include <memory>

namespace sentrova::platform {

class RealHost {
  public:
    RealHost();

    // Starts the threads of the clock and of the network. Blocks while the system refuses a thread.
    void start();

    // The references are valid as long as this object lives. `other` replaces the network session; it must outlive the
    // use of the result.
    Host host(UrlSession* other = nullptr);

  private:
    SystemClock clock_;
    HostFileSystem files_;
    CurlUrlSession session_{clock_};
    const std::unique_ptr<Cryptography> cryptography_;
    const std::unique_ptr<DateLibrary> dates_;
    const std::unique_ptr<Encodings> encodings_;
    const std::unique_ptr<Directory> directory_;
    const std::unique_ptr<AuditPipeDevice> auditPipe_;
    const std::unique_ptr<AuditCondition> auditCondition_;
};

}  // namespace sentrova::platform
