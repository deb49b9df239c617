// Which HTTP method and path each kind of message has.

#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace sentrova {

enum class MessageType : std::int64_t { eventDelivery = 0, configurationSync = 1 };

class MsgConfiguration {
  public:
    // The same object, filled for the type; both texts are absent for a type that there is not.
    MsgConfiguration& getMessageConfiguration(MessageType type);

    const std::optional<std::string>& method() const { return method_; }
    // The path, to be appended to the server's base URL.
    const std::optional<std::string>& URL() const { return URL_; }

  private:
    std::optional<std::string> method_;
    std::optional<std::string> URL_;
};

}  // namespace sentrova
