// The parts of the host that the commands use without an agent.

#pragma once

#include "foundation/run/Current.h"
#include "foundation/value/Cryptography.h"
#include "foundation/value/Encodings.h"
#include "platform/icu/IcuEncodings.h"
#include "platform/openssl/OpenSslCryptography.h"
#include "platform/posix/HostFileSystem.h"

#include <memory>

namespace sentrova::control {

// Publishes what the agent's parts expect, so that files are read as the agent reads them. Writes nothing and logs
// nothing by itself.
class ControlHost {
  public:
    FileSystem& files() { return files_; }
    const Cryptography& cryptography() const { return *cryptography_; }

  private:
    platform::HostFileSystem files_;
    const std::unique_ptr<Encodings> encodings_ = platform::makeIcuEncodings();
    const std::unique_ptr<Cryptography> cryptography_ = platform::makeOpenSslCryptography();
    const Current<FileSystem>::Publication publishedFiles_{files_};
    const Current<Encodings>::Publication publishedEncodings_{*encodings_};
    const Current<Cryptography>::Publication publishedCryptography_{*cryptography_};
};

}  // namespace sentrova::control
