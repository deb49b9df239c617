// The HTTP method and path of each message type.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace sentrova {

enum class MessageType : std::int64_t { eventDelivery = 0, configurationSync = 1 };

class MsgConfiguration {
  public:
    // Sets method and path for the type and returns the object. Both are absent for an unknown message type.
    MsgConfiguration& getMessageConfiguration(MessageType type);

    const std::optional<std::string>& method() const { return method_; }
    // The path, relative to the server's base URL.
    const std::optional<std::string>& URL() const { return URL_; }

  private:
    std::optional<std::string> method_;
    std::optional<std::string> URL_;
};

}  // namespace sentrova
