// Posts bodies with plain libcurl: the minimum cost of a delivery.

#pragma once

#include <string>
#include <vector>

namespace sentrova::bench {

// Keeps its connections between calls. Not thread-safe.
class BareClient {
  public:
    BareClient(std::string url, int connections);
    ~BareClient();
    BareClient(const BareClient&) = delete;
    BareClient& operator=(const BareClient&) = delete;

    // Returns when every body has been answered with 200. Throws std::runtime_error on any other answer.
    void post(const std::vector<std::string>& bodies);

  private:
    std::string url_;
    void* multi_;
    std::vector<void*> handles_;
};

}  // namespace sentrova::bench
