#include "platform/Transaction.h"

#include <xpc/xpc.h>

namespace sentrova::platform {

Transaction::Transaction() {
    ::xpc_transaction_begin();
}

Transaction::~Transaction() {
    ::xpc_transaction_end();
}

}  // namespace sentrova::platform
