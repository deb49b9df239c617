// Writes what the durable spool has accepted: frames of the journal, the files of sealed batches, and checkpoints.
//
// The order is what makes it safe: entries are flushed first. Only then are the files of sealed batches written, only
// then is a key in force, and only then does the file of an ended batch leave. So the journal tells of each such step
// before it happens, and a start can finish it. The files of sealed batches are not flushed, because the journal has
// their events; a checkpoint, which drops those, flushes them first.
//
// Not thread-safe: the spool uses it on its queue alone.

#pragma once

#include "forwarding/Journal.h"
#include "forwarding/JournalState.h"
#include "foundation/files/FileSystem.h"
#include "foundation/value/Cryptography.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace sentrova {

class JournalWriter {
  public:
    // What took place, by the names of the batches.
    struct Effects {
        // Their files are written.
        std::vector<SpooledBatch> sealed;
        // Their keys are on the disk.
        std::vector<std::string> keyed;
        // Their files have left, or could not be deleted.
        std::vector<std::string> gone;
        std::vector<std::string> stuck;
        // A file was deleted.
        bool madeRoom = false;
        // Every entry that was added is on the disk.
        bool isComplete = false;
        // Why not.
        std::optional<Error> error;
    };

    // Both must outlive the object.
    JournalWriter(FileSystem& files, const Cryptography& cryptography)
        : files_(files), cryptography_(cryptography), journal_(files, cryptography) {}

    // Reads the files of the folder. The state of the result is empty, because the writer has taken it over.
    Result<JournalRecovery> open(const std::string& folder);

    // What the entries say that were added so far.
    const JournalState& state() const { return state_; }
    // Whether the batch's events are in the journal, and its file is not written yet.
    bool isUnwritten(const std::string& name) const { return bodies_.contains(name); }

    // Adds entries to be written, in their order, and empties both vectors. The ends of batches come apart, because
    // they may use the journal's reserve while the disk is full. After an exception, the vectors have the entries that
    // were not added.
    void add(std::vector<journal::Entry>& entries, std::vector<journal::Entry>& ends);
    // Writes what was added, without a flush.
    std::optional<Error> write();
    // Writes and flushes what was added, lets it take effect, and adds to the effects. After an exception, which loses
    // nothing that was added, the effects have what took place until then; the next commit adds the rest.
    void commit(Effects& effects);

    // The content of the batch, from the events in the journal; nothing if they are not there. Writes the file anew.
    std::optional<std::string> rebuild(const std::string& name, const std::string& digest);
    // Removes the journal and the position file.
    Result<Done> remove() { return journal_.remove(); }

  private:
    using Effect = std::optional<Error>;

    void add(std::vector<journal::Entry>& entries, std::string& text);
    void encode(journal::Entry& entry, std::string& text);
    void distrustFile();
    void writeAndFlush(Effects& effects);
    Effect writeText();
    Effect flush();
    Effect writeBodies(Effects& effects);
    void endBatches(Effects& effects);
    Effect checkpointIfDue();
    Effect checkpoint();
    Effect flushFiles();
    Result<Done> flushContent(const std::string& path);
    std::string path(const std::string& name) const { return folder_ + "/" + name; }

    FileSystem& files_;
    const Cryptography& cryptography_;
    std::string folder_;
    Journal journal_;
    JournalState state_;
    std::uint64_t generation_ = 0;
    std::uint64_t checkpointSize_ = 0;

    // Lines that belong to state_ and are not in the journal yet.
    std::string unwritten_;
    std::string unwrittenEnds_;
    bool isUnflushed_ = false;
    // The journal's file is not to be trusted: only a checkpoint goes on.
    bool mustCheckpoint_ = false;

    // Effects that wait for the flush of their entries. Ended batches by the name under which the file is kept, or
    // empty; those of the second map ended together with other entries, which must be on the disk too.
    std::vector<std::string> keyed_;
    std::map<std::string, std::string> ended_;
    std::map<std::string, std::string> endedWithEntries_;
    // The content of sealed batches whose files are not written yet.
    std::map<std::string, std::string> bodies_;
    // Batches whose files a loss of power may still take; the journal has their events.
    std::set<std::string> unflushedFiles_;
    // Ended batches whose files left since the last checkpoint, and between that one and the one before.
    std::set<std::string> left_;
    std::set<std::string> leftBefore_;
};

}  // namespace sentrova
