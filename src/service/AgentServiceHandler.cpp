#include "service/AgentServiceHandler.h"

#include "foundation/run/Current.h"
#include "service/Agent.h"

namespace sentrova {

bool AgentServiceHandler::initializeService() {
    return Current<Agent>::get().initialize();
}

void AgentServiceHandler::start() {
    Current<Agent>::get().run();
}

void AgentServiceHandler::stop() {
    Current<Agent>::get().stop();
}

void AgentServiceHandler::syncNow() {
    Current<Agent>::get().syncNow();
}

void AgentServiceHandler::writeStatus() {
    Current<Agent>::get().writeStatus();
}

void AgentServiceHandler::end() {
    Current<Agent>::get().end();
}

void AgentServiceHandler::addOperationToMainQueue(const std::shared_ptr<ConcurrentOperationAbstract>& operation) {
    Current<MainQueue>::get().add(operation);
}

void AgentServiceHandler::cancelOperationsOnMainQueue(std::string_view name) {
    Current<MainQueue>::get().cancel(name);
}

bool AgentServiceHandler::getOperationStatusOnMainQueue(std::string_view name) {
    return Current<MainQueue>::get().isExecuting(name);
}

}  // namespace sentrova
