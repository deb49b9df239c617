// The batches of an installation's spool, in files and in the journal.

#pragma once

#include "control/InstallationFolder.h"
#include "forwarding/JournalRecovery.h"
#include "foundation/files/FileSystem.h"
#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova::control {

struct SpooledFile {
    enum class State : std::uint8_t {
        // The agent sends it without being asked.
        waiting,
        // The server refused it, and the agent tries it again after a wait.
        refused,
        // It stays for the administrator, and the agent does not send it.
        kept,
    };

    std::string name;
    State state = State::waiting;
    // Absent if the file is no batch of events.
    std::optional<std::uint64_t> events;
    std::uint64_t bytes = 0;
    // Seconds since 1970: when the server first refused it, or when its file was written. Absent without a file.
    std::optional<std::int64_t> since;
    // Why it is still there.
    std::string reason;
    std::uint64_t refusals = 0;
    // The HTTP status of the last refusal. Absent if there was none.
    std::optional<std::int64_t> status;
};

// What was in the spool when the object was made. A running agent changes it at any time.
class SpoolContent {
  public:
    // Lists the folder, reads the journal, and changes nothing. Fails if the folder cannot be listed; a missing one is
    // empty. The parts of ControlHost must be published, and the file system must outlive the object.
    static Result<SpoolContent> of(const InstallationFolder& installation, FileSystem& files);

    // Reads the file of that name, and says what it is and why it is still there. `agent` is what the running agent
    // tells, and null if none runs; docs/formats.md describes it. Absent if there is no such file.
    std::optional<SpooledFile> described(const std::string& name, const Dictionary* agent) const;
    // The same for all files, by name.
    std::vector<SpooledFile> described(const Dictionary* agent) const;
    bool contains(const std::string& name) const;
    // The text of a batch, from its file or from the journal.
    Result<std::string> textOf(const std::string& name) const;
    // The events in the journal that are not in a batch yet. Absent without the durable mode.
    std::optional<std::uint64_t> openEvents() const { return openEvents_; }
    // What is wrong with the journal. Beside a running agent it may only have been read during a change.
    const std::vector<std::string>& problems() const { return problems_; }

  private:
    SpoolContent(std::string folder, FileSystem& fileSystem) : folder_(std::move(folder)), fileSystem_(&fileSystem) {}

    Result<Done> readFolder();
    void readJournal();
    void addMissing();
    void addFile(const std::string& name);
    SpooledFile describe(SpooledFile file, const Dictionary* agent) const;
    void describeRefusal(SpooledFile& file, const Dictionary* agent) const;
    std::string whyWaiting(const Dictionary* agent) const;
    std::string path(const std::string& name) const { return folder_ + "/" + name; }

    std::string folder_;
    FileSystem* fileSystem_;
    // By name; not described.
    std::vector<SpooledFile> files_;
    // Of the durable mode: its batches, and the texts of those that are in the journal.
    std::map<std::string, SpooledBatch> batches_;
    std::map<std::string, std::string> bodies_;
    // Batches that have ended, by name: the name under which the file is to be kept, or empty if it is to be deleted.
    std::map<std::string, std::string> ended_;
    std::optional<std::uint64_t> openEvents_;
    std::vector<std::string> problems_;
};

}  // namespace sentrova::control
