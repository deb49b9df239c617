// Cryptography by the OpenSSL library.

#pragma once

#include "foundation/value/Cryptography.h"

#include <memory>

namespace sentrova::platform {

std::unique_ptr<Cryptography> makeOpenSslCryptography();

}  // namespace sentrova::platform
