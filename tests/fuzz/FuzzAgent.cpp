#include "fuzz/FuzzAgent.h"

#include "forwarding/SecurityUtil.h"
#include "foundation/ProcessWide.h"
#include "foundation/PropertyList.h"
#include "fuzz/Fuzz.h"

namespace sentrova::testing {

FuzzAgent::FuzzAgent() : files_((prepare(), volume().root().string()), volume().agent().string()) {}

// What the inputs find on the disk, which is then read into memory.
void FuzzAgent::prepare() {
    myConfigurations.set("LogLevel", 1);
    writeConfiguration();
    volume().addLocalUser("ann", 501);
    volume().addDomainUser("dora", 1001, "S-1-5-21-1-2-3-1001", "CORP");
    // A child process for each input would cost more than everything else.
    std::filesystem::remove(volume().volume() / "usr/sbin/dsconfigad");
}

FuzzAgent& FuzzAgent::fresh() {
    // Makes the cryptography's own state before the agent's threads, so that it outlives them.
    static const bool hasRandom = SecurityUtil::randomBytes(1).has_value();
    require(hasRandom, "there is randomness");
    static FuzzAgent agent;
    static const auto start = agent.clock().wallTime();
    agent.restart();
    agent.session().startAnew();
    // Runs the timers of queues that are gone, which do nothing any more.
    agent.clock().advance(std::chrono::hours(1));
    agent.clock().setWallTime(start);
    agent.files().reset();
    return agent;
}

Dictionary FuzzAgent::configuration(std::string_view name) {
    const auto bytes = files_.read(path("conf/") + std::string(name));
    const auto parsed = bytes ? PropertyList::parse(*bytes) : Result<Value>(bytes.error());
    require(parsed && parsed->dictionary(), "the configuration files still parse", name);
    return *parsed->dictionary();
}

std::size_t FuzzAgent::logged(std::string_view text, std::string_view category) {
    std::size_t count = 0;
    for (const auto& [name, content] : files_.files(path("logs"))) {
        const auto whole = asText(content);
        for (auto at = name.starts_with(category) ? whole.find(text) : std::string::npos; at != std::string::npos;
             at = whole.find(text, at + text.size())) {
            ++count;
        }
    }
    return count;
}

}  // namespace sentrova::testing
