// The login history's file: the archive alone, and as the agent reads it at its start.

#include "collection/currentLoginUtility.h"
#include "foundation/formats/KeyedArchive.h"
#include "fuzz/Fuzz.h"
#include "fuzz/FuzzAgent.h"

#include <limits>

namespace sentrova::testing {

void fuzz(std::span<const std::uint8_t> input) {
    auto content = KeyedArchive::unarchive(input);
    // The agent treats all invalid archives alike; a few of them are enough.
    if (!content && input.size() % 16 != 0) {
        return;
    }
    auto expected = std::move(content).optional().value_or(KeyedArchive::Content());
    const auto archived = KeyedArchive::archive(expected);
    require(static_cast<bool>(archived), "what is unarchived can be archived");
    const auto again = KeyedArchive::unarchive(*archived);
    require(again && KeyedArchive::archive(*again).optional() == *archived, "an archive reads as the same");

    auto& agent = FuzzAgent::fresh();
    agent.files().put(agent.path("conf/currentLogins"), input);
    currentLoginUtility::initialize();
    for (const auto time : {std::numeric_limits<std::int64_t>::min(), std::int64_t{0}, std::int64_t{1'700'000'000},
                            std::numeric_limits<std::int64_t>::max()}) {
        const auto found = currentLoginUtility::getLogonUserAtTime(time);
        // The time of the last event is 0. Older entries are removed from memory.
        const auto first = expected.lower_bound(0);
        require(found || first == expected.end() || first->first - 1 > time, "look-up finds");
    }
    currentLoginUtility::flush();
    const auto stored = KeyedArchive::unarchive(agent.files().files(agent.path("conf"))["currentLogins"]);
    require(static_cast<bool>(stored), "the file is an archive after an addition");
    expected.insert_or_assign(agent.clock().epochSeconds(), Dictionary());
    require(stored->size() == expected.size(), "the file keeps what was in it, and the console's owner");
    for (const auto& [time, entry] : expected) {
        require(stored->contains(time), "every time is kept", std::to_string(time));
    }
}

}  // namespace sentrova::testing
