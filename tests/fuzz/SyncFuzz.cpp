// The server's answers to synchronisations, one after another, through all handlers. Input: the answers, separated by
// line feeds. If the first line is "service", the agent runs meanwhile.

#include "core/GlobalVariables.h"
#include "forwarding/EventQueueGCD.h"
#include "forwarding/TransportEngine.h"
#include "foundation/formats/Json.h"
#include "foundation/run/NotificationCenter.h"
#include "fuzz/Fuzz.h"
#include "fuzz/FuzzAgent.h"
#include "operations/ScheduleHandler.h"
#include "service/AgentServiceHandler.h"
#include "support/Footprint.h"
#include "sync/ServerCommunicator.h"

#include <future>
#include <thread>

namespace sentrova::testing {

namespace {

using namespace std::chrono_literals;

void synchronise(FuzzAgent& agent, std::string_view answer, bool atWork) {
    agent.session().respondWith(
        [body = std::string(answer)](const auto&) { return FakeUrlSession::Answer{200, body}; });
    ServerCommunicator().syncFromServer();
    if (!atWork) {
        agent.session().settle();
        return;
    }
    // A handler may be waiting for realtime collection to end.
    const auto applied = std::async(std::launch::async, [&agent] { agent.session().settle(); });
    while (applied.wait_for(1ms) != std::future_status::ready) {
        agent.clock().advance(10s);
    }
}

void requireSoundState(FuzzAgent& agent) {
    for (const auto* name : {"Serverinfo.plist", "myconfigurations.plist", "schedules.plist"}) {
        agent.configuration(name);
    }
    for (const auto& [name, content] : agent.files().files(agent.path("conf"))) {
        require(!name.ends_with(".damaged"), "no configuration file was damaged", name);
    }
    ScheduleHandler::init()->CheckEventDatasize();
    require(!TransportEngine().baseURL().empty(), "there is an address");
    EventQueueGCD::init();
    for (int i = 0; i < 3; ++i) {
        EventQueueGCD::enqueue({{"n", i}});
    }
    TransportEngine::setIsConnected(true);
    auto batches = EventQueueGCD::dequeue(std::nullopt).value_or("");
    for (const auto& [name, content] : agent.files().files(agent.path("eventData"))) {
        batches += asText(content);
    }
    for (const auto* event : {R"({"n":0})", R"({"n":1})", R"({"n":2})"}) {
        require(batches.find(event) != std::string::npos, "events are kept under every configuration", batches);
    }
}

}  // namespace

void fuzz(std::span<const std::uint8_t> input) {
    auto& agent = FuzzAgent::fresh();
    // The thread sanitizer creates its own thread together with the first one. It must not count as the agent's.
    static const auto begun = std::async(std::launch::async, [] { return true; }).get();
    require(begun, "there are threads");
    auto answers = parts(asText(input), '\n', 5);
    const bool atWork = answers[0] == "service";
    agent.session().settle();
    const auto before = Footprint().threads;
    std::thread service;
    if (atWork) {
        agent.session().respondWith([](const auto&) { return FakeUrlSession::Answer(); });
        EventQueueGCD::init();
        service = std::thread([] { AgentServiceHandler::start(); });
        require(eventually([] { return AgentServiceHandler::getOperationStatusOnMainQueue("EventForwarder"); }),
                "the service starts");
        answers.erase(answers.begin());
    }
    for (const auto answer : answers) {
        synchronise(agent, answer, atWork);
    }
    if (atWork) {
        AgentServiceHandler::stop();
        service.join();
    }
    requireSoundState(agent);
    // The next start finds a usable configuration. One more thread may belong to the session.
    agent.restart();
    require(eventually([before] { return Footprint().threads <= before + 1; }), "no thread outlives the agent");
    synchronise(agent, "{}", false);
    requireSoundState(agent);
}

}  // namespace sentrova::testing
