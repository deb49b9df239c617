// Brackets work that the service manager must not interrupt by killing the process.

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
