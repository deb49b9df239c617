// The durable spool's two files: the journal, which grows by frames, and the position file beside it.
//
// The journal ends with a reserve of line feeds on the disk, so that a confirmation can be written while the disk is
// full. Not thread-safe. docs/formats.md describes the files.

#pragma once

#include "forwarding/JournalRecovery.h"
#include "foundation/files/FileSystem.h"
#include "foundation/files/OpenFile.h"
#include "foundation/value/Cryptography.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace sentrova {

class Journal {
  public:
    static constexpr const char* kJournalName = ".journal";
    static constexpr const char* kPositionName = ".position";
    // The reserve, in bytes.
    static constexpr std::uint64_t kReserve = 64 * 1024;

    // Both must outlive the object.
    Journal(FileSystem& files, const Cryptography& cryptography) : files_(files), cryptography_(cryptography) {}

    // The folder of both files. Must be called before any other function.
    void setFolder(std::string folder) { folder_ = std::move(folder); }

    // What the files say.
    Result<JournalRecovery> read() const;

    // Opens the existing journal and goes on behind its last whole frame.
    Result<Done> resume(std::uint64_t generation, const JournalRecovery::Continuation& at);
    // Replaces both files by those of the next generation; the content becomes the checkpoint's frame. Flushed. If it
    // fails, the earlier journal stays in use, or the new one if that is in place already.
    Result<Done> checkpoint(std::uint64_t generation, std::string_view content);

    // Appends a frame. It is on the disk, but for a loss of power, when the function returns. If it fails, the journal
    // is as before. Only a frame that may use the reserve does.
    Result<Done> append(std::string_view content, bool mayUseReserve);
    Result<Done> flush();
    // Removes both files.
    Result<Done> remove();

    bool isOpen() const { return file_ != nullptr; }
    // In bytes, without the reserve.
    std::uint64_t size() const { return end_; }
    std::uint64_t generation() const { return generation_; }

  private:
    std::string path(std::string_view name) const;
    Result<Done> open();

    FileSystem& files_;
    const Cryptography& cryptography_;
    std::string folder_;
    std::unique_ptr<OpenFile> file_;
    std::uint64_t generation_ = 0;
    std::uint64_t nextFrame_ = 0;
    // Where the last frame ends, and where the file ends.
    std::uint64_t end_ = 0;
    std::uint64_t allocated_ = 0;
    // Bytes from end_ to here may be those of a frame whose writing failed.
    std::uint64_t dirtyTo_ = 0;
    // A kill may have come between the renaming of the journal and the flush of its folder.
    bool isNameUnflushed_ = false;
};

}  // namespace sentrova
