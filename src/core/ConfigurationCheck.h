// Finds what an administrator or a server got wrong in the configuration files, and what the agent takes instead.

#pragma once

#include "foundation/Mutex.h"
#include "foundation/Result.h"
#include "foundation/Value.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova {

struct ConfigurationFinding {
    // The file's name, without its folder.
    std::string file;
    // Absent where the whole file is meant.
    std::optional<std::string> key;
    std::string problem;
    // What the agent takes or does because of it.
    std::string instead;

    // "FILE: KEY: problem; instead".
    std::string text() const;

    friend bool operator==(const ConfigurationFinding&, const ConfigurationFinding&) = default;
};

// What one file holds. A file that gives no dictionary has the reason in its place.
struct ConfigurationFile {
    enum class State { read, missing, damaged, unreadable };

    State state = State::read;
    Dictionary content;
    // Why it is damaged or unreadable.
    std::string reason;

    // Reads the file as it is, and changes nothing.
    static ConfigurationFile at(const std::string& path);
};

struct ConfigurationFiles {
    ConfigurationFile serverInfo;
    ConfigurationFile myConfigurations;
    ConfigurationFile schedules;

    static ConfigurationFiles in(const std::string& folder);
};

// The findings in the three files, in the order of the files and of docs/configuration.md. `knownEvents` are the names
// that "EventsToRead" may hold. Asks nothing but its arguments.
std::vector<ConfigurationFinding> checkConfiguration(const ConfigurationFiles& files,
                                                     std::span<const std::string_view> knownEvents);

// Logs each finding at level 0 when it is new since the last check. A finding that was gone and comes back is new. Safe
// from any thread.
class ConfigurationReport {
  public:
    void report(std::vector<ConfigurationFinding> findings) EXCLUDES(mutex_);

  private:
    Mutex mutex_{LockRank::owner};
    std::vector<ConfigurationFinding> known_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
