// The task list: an arbitrary `schedules.plist`, started as in the agent and run for some hours.

#include "foundation/formats/PropertyList.h"
#include "fuzz/Fuzz.h"
#include "fuzz/FuzzAgent.h"
#include "operations/ScheduleHandler.h"

namespace sentrova::testing {

namespace {

// The list as text, without the keys that the scheduler writes.
std::string withoutStamps(std::span<const std::uint8_t> bytes) {
    auto list = PropertyList::parse(bytes);
    auto* const dictionary = list ? list->dictionary() : nullptr;
    auto tasks = dictionary ? (*dictionary)["ScheduleTasks"] : Value();
    if (auto* entries = tasks.array()) {
        for (auto& entry : *entries) {
            for (const auto* key : {"LastScheduleTime", "LastScheduleTimeInMillis", "Repeat"}) {
                if (auto* task = entry.dictionary()) {
                    task->remove(key);
                }
            }
        }
        dictionary->set("ScheduleTasks", tasks);
    }
    const auto text = dictionary ? PropertyList::writeXml(*list) : Result<Data>(Error());
    return text ? std::string(text->begin(), text->end()) : std::string();
}

}  // namespace

void fuzz(std::span<const std::uint8_t> input) {
    // The check counts log lines, so the input must not contain one.
    constexpr std::string_view kScheduled = " has been scheduled", kAtOnce = " is 2026-11-15 12:00:00 ";
    const auto text = asText(input);
    if (text.find(kScheduled) != std::string_view::npos || text.find(kAtOnce) != std::string_view::npos) {
        return;
    }
    auto& agent = FuzzAgent::fresh();
    agent.session().respondWith([](const auto&) { return FakeUrlSession::Answer(); });
    agent.files().put(agent.path("conf/schedules.plist"), input);

    const auto before = agent.clock().pendingTimers();
    ScheduleHandler::init()->start();
    const auto scheduled = agent.logged(kScheduled);
    require(eventually([&] { return agent.clock().pendingTimers() + agent.logged(kAtOnce) >= before + scheduled; }),
            "every task that is scheduled has its timer, unless it runs at once");
    for (const auto time : {1, 600, 36000}) {
        agent.clock().advance(std::chrono::seconds(time));
    }
    require(!ScheduleHandler::description().empty(), "the list can be described");
    ScheduleHandler::stopAllTasks();
    // Ends the runs in progress.
    agent.restart();

    auto conf = agent.files().files(agent.path("conf"));
    const auto list = withoutStamps(input);
    if (list.empty()) {
        const Data original(input.begin(), input.end());
        require(conf["schedules.plist"] == original || conf["schedules.plist.damaged"] == original,
                "a list that cannot be read is kept");
    } else {
        require(withoutStamps(conf["schedules.plist"]) == list, "tasks change nothing but their stamps", list);
    }
}

}  // namespace sentrova::testing
