// The host as it is, with the libraries that it provides.

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

    // Starts the threads of the clock and of the network, and waits while the system grants none.
    void start();

    // Valid for as long as this object lives. With another session, where one is given.
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
