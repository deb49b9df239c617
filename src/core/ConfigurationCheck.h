// Finds mistakes in the configuration files, and says what the agent does instead.

#pragma once

#include "foundation/files/FileSystem.h"
#include "foundation/run/Mutex.h"
#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

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

    // "FILE: KEY: problem; instead".
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

// The findings in the three files, in the order of the files and of docs/configuration.md. `knownEvents` are the names
// that "EventsToRead" may hold. The result depends on the arguments alone.
std::vector<ConfigurationFinding> checkConfiguration(const ConfigurationFiles& files,
                                                     std::span<const std::string_view> knownEvents);

// Checks the files and logs each finding at level 0, unless the previous check found it too. Safe from any thread.
class ConfigurationReport {
  public:
    // `folder` holds the files. The file system and the known names must outlive the object.
    ConfigurationReport(FileSystem& files, std::string folder, std::span<const std::string_view> knownEvents)
        : files_(files), folder_(std::move(folder)), knownEvents_(knownEvents) {}

    void check() EXCLUDES(mutex_) { report(checkConfiguration(ConfigurationFiles::in(files_, folder_), knownEvents_)); }
    void report(std::vector<ConfigurationFinding> findings) EXCLUDES(mutex_);

  private:
    FileSystem& files_;
    const std::string folder_;
    const std::span<const std::string_view> knownEvents_;
    Mutex mutex_{LockRank::owner};
    std::vector<ConfigurationFinding> known_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
