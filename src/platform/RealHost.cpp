#include "platform/RealHost.h"

#include "platform/icu/IcuDates.h"
#include "platform/icu/IcuEncodings.h"
#include "platform/openssl/OpenSslCryptography.h"

namespace sentrova::platform {

RealHost::RealHost()
    : cryptography_(makeOpenSslCryptography()),
      dates_(makeIcuDates()),
      encodings_(makeIcuEncodings()),
      directory_(Directory::make(files_, clock_)),
      auditPipe_(AuditPipeDevice::make()),
      auditCondition_(AuditCondition::make()) {}

void RealHost::start() {
    clock_.start();
    session_.start();
}

Host RealHost::host(UrlSession* other) {
    return {.clock = clock_,
            .files = files_,
            .session = other ? *other : session_,
            .cryptography = *cryptography_,
            .dates = *dates_,
            .encodings = *encodings_,
            .directory = *directory_,
            .auditPipe = *auditPipe_,
            .auditCondition = *auditCondition_};
}

}  // namespace sentrova::platform
