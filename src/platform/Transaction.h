// While an object exists, the service manager does not kill the process without warning.

#pragma once

namespace sentrova::platform {

class Transaction {
  public:
    Transaction();
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
};

}  // namespace sentrova::platform
