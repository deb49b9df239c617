#include "platform/Transaction.h"

namespace sentrova::platform {

// Does nothing: the service managers of this host send SIGTERM and then wait.
Transaction::Transaction() = default;
Transaction::~Transaction() = default;

}  // namespace sentrova::platform
