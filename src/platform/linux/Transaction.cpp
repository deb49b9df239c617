#include "platform/Transaction.h"

namespace sentrova::platform {

// The service managers of this host send SIGTERM and then wait; there is nothing to announce.
Transaction::Transaction() = default;
Transaction::~Transaction() = default;

}  // namespace sentrova::platform
