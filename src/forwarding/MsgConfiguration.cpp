#include "forwarding/MsgConfiguration.h"

namespace sentrova {

MsgConfiguration& MsgConfiguration::getMessageConfiguration(MessageType type) {
    switch (type) {
        case MessageType::eventDelivery:
            method_ = "POST";
            URL_ = "/api/agent/tabs/agentData";
            break;
        case MessageType::configurationSync:
            method_ = "POST";
            URL_ = "/api/agent/configuration/syncmacagentconfiguration";
            break;
        default:
            method_.reset();
            URL_.reset();
    }
    return *this;
}

}  // namespace sentrova
