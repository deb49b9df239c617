#include "fuzz/FuzzAgent.h"

#include "fuzz/Fuzz.h"
#include "platform/openssl/OpenSslCryptography.h"

namespace sentrova::testing {

FuzzAgent::FuzzAgent() : files_((prepare(), volume().agent())) {}

// The configuration and users that every input starts with.
void FuzzAgent::prepare() {
    myConfigurations.set("LogLevel", 1);
    writeConfiguration();
    volume().addLocalUser("ann", 501);
    volume().addDomainUser("dora", 1001, "S-1-5-21-1-2-3-1001", "CORP");
    // Without the tool, because a child process per input would cost more than everything else.
    std::filesystem::remove(volume().volume() / "usr/sbin/dsconfigad");
}

FuzzAgent& FuzzAgent::fresh() {
    // Makes the state of the library before the agent's threads begin, so that the state outlives them.
    static const bool hasRandom = platform::makeOpenSslCryptography()->randomBytes(1).has_value();
    require(hasRandom, "there is randomness");
    static FuzzAgent agent;
    static const auto start = agent.clock().wallTime();
    agent.endAgent();
    agent.session().startAnew();
    // Fires the timers of destroyed queues, which do nothing.
    agent.clock().advance(std::chrono::hours(1));
    agent.clock().setWallTime(start);
    agent.files().reset();
    agent.restart();
    return agent;
}

}  // namespace sentrova::testing
