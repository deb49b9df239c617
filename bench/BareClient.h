// Posts bodies with libcurl alone: the least that a delivery can cost.

#pragma once

#include <string>
#include <vector>

namespace sentrova::bench {

// Connections are kept from one call to the next. For one thread.
class BareClient {
  public:
    BareClient(std::string url, int connections);
    ~BareClient();
    BareClient(const BareClient&) = delete;
    BareClient& operator=(const BareClient&) = delete;

    // Returns when every body has been answered 200; throws std::runtime_error on any other answer.
    void post(const std::vector<std::string>& bodies);

  private:
    std::string url_;
    void* multi_;
    std::vector<void*> handles_;
};

}  // namespace sentrova::bench
