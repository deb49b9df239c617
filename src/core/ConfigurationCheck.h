// Finds mistakes in the configuration files, and says what the agent does instead.

#pragma once

#include "core/Configuration.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/Mutex.h"
#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova {

struct ConfigurationFinding {
    // The file's name, without its folder.
    std::string file;
    // Absent if the finding is about the whole file.
    std::optional<std::string> key;
    std::string problem;
    // What the agent uses or does because of the problem.
    std::string instead;

    // "FILE: KEY: problem; instead", on one line.
    std::string text() const;

    friend bool operator==(const ConfigurationFinding&, const ConfigurationFinding&) = default;
};

// The content of one file, or the reason why it has none.
struct ConfigurationFile {
    enum class State { read, missing, damaged, unreadable };

    State state = State::read;
    Dictionary content;
    // Why the file is damaged or unreadable.
    std::string reason;

    // Reads the file. Logs nothing and changes nothing.
    static ConfigurationFile at(FileSystem& files, const std::string& path);
};

struct ConfigurationFiles {
    ConfigurationFile serverInfo;
    ConfigurationFile myConfigurations;
    ConfigurationFile schedules;

    static ConfigurationFiles in(FileSystem& files, const std::string& folder);
};

// What the check asks of the layers above.
struct ConfigurationRules {
    // The names that "EventsToRead" may hold. They must outlive the rules.
    std::span<const std::string_view> events;
    // The methods that a task may call, by the name of their class.
    std::map<std::string, std::vector<std::string>, std::less<>> tasks;
    // Whether a text is a time of day for "RunAt".
    std::function<bool(std::string_view)> isTimeOfDay;
    Decryption decrypt;
};

// The findings in the three files, in the order of the files and of docs/configuration.md. The result depends on the
// arguments alone.
std::vector<ConfigurationFinding> checkConfiguration(const ConfigurationFiles& files, const ConfigurationRules& rules);

// The keys that are unknown, but similar to a known key of their file. Not part of checkConfiguration: a server may
// send keys of its own, and its agents must not complain about them at each start.
std::vector<ConfigurationFinding> findMisspelledKeys(const ConfigurationFiles& files);

// Checks the files and logs each finding at level 0, unless the previous check found it too. Safe from any thread.
class ConfigurationReport {
  public:
    // `folder` holds the files. The file system must outlive the object.
    ConfigurationReport(FileSystem& files, std::string folder, ConfigurationRules rules)
        : files_(files), folder_(std::move(folder)), rules_(std::move(rules)) {}

    void check() EXCLUDES(mutex_) { report(checkConfiguration(ConfigurationFiles::in(files_, folder_), rules_)); }
    void report(std::vector<ConfigurationFinding> findings) EXCLUDES(mutex_);

  private:
    FileSystem& files_;
    const std::string folder_;
    const ConfigurationRules rules_;
    Mutex mutex_{LockRank::owner};
    std::vector<ConfigurationFinding> known_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
