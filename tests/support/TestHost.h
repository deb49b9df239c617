// A host for tests: a manual clock, a session without a network, a file system that a test can replace, and the real
// implementation of everything else.

#pragma once

#include "platform/Host.h"
#include "platform/icu/IcuDates.h"
#include "platform/icu/IcuEncodings.h"
#include "platform/openssl/OpenSslCryptography.h"
#include "support/FakeUrlSession.h"
#include "support/ManualClock.h"
#include "support/SwitchedFileSystem.h"

#include <memory>

namespace sentrova::testing {

class TestHost {
  public:
    ManualClock clock;
    SwitchedFileSystem files;
    FakeUrlSession session{clock};
    const std::unique_ptr<Encodings> encodings = platform::makeIcuEncodings();
    const std::unique_ptr<DateLibrary> dates = platform::makeIcuDates();

    // Replace the host's own objects if a test sets them.
    UrlSession* otherSession = nullptr;
    platform::Directory* otherDirectory = nullptr;

    platform::Host host() {
        return {.clock = clock,
                .files = files,
                .session = otherSession ? *otherSession : session,
                .cryptography = *cryptography_,
                .dates = *dates,
                .encodings = *encodings,
                .directory = otherDirectory ? *otherDirectory : *directory_,
                .auditPipe = *auditPipe_,
                .auditCondition = *auditCondition_};
    }

  private:
    const std::unique_ptr<Cryptography> cryptography_ = platform::makeOpenSslCryptography();
    const std::unique_ptr<platform::Directory> directory_ = platform::Directory::make(files, clock);
    const std::unique_ptr<platform::AuditPipeDevice> auditPipe_ = platform::AuditPipeDevice::make();
    const std::unique_ptr<platform::AuditCondition> auditCondition_ = platform::AuditCondition::make();
};

}  // namespace sentrova::testing
