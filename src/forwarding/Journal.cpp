#include "forwarding/Journal.h"

#include "forwarding/JournalFormat.h"

#include <algorithm>
#include <cerrno>
#include <span>
#include <utility>

namespace sentrova {

namespace {

std::span<const std::uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// The text of a file; nothing if there is none.
Result<std::optional<std::string>> textOf(FileSystem& files, const std::string& path) {
    auto text = files.readText(path);
    if (text) {
        return std::optional(*std::move(text));
    }
    return text.error().code == ENOENT ? Result<std::optional<std::string>>(std::nullopt) : text.error();
}

}  // namespace

std::string Journal::path(std::string_view name) const {
    return folder_ + "/" + std::string(name);
}

Result<JournalRecovery> Journal::read() const {
    const auto journal = textOf(files_, path(kJournalName));
    if (!journal) {
        return journal.error();
    }
    const auto position = textOf(files_, path(kPositionName));
    if (!position) {
        return position.error();
    }
    const auto contentOf = [this](const std::string& name) { return files_.readText(path(name)).optional(); };
    return recover(*journal, *position, contentOf, cryptography_);
}

Result<Done> Journal::open() {
    auto file = files_.openForWriting(path(kJournalName));
    if (!file) {
        return file.error();
    }
    file_ = *std::move(file);
    return Done();
}

Result<Done> Journal::resume(std::uint64_t generation, const JournalRecovery::Continuation& at) {
    if (const auto opened = open(); !opened) {
        return opened;
    }
    generation_ = generation;
    nextFrame_ = at.nextFrame;
    end_ = at.end;
    // A frame that was cut short must not follow a shorter one that is written over it.
    if (const auto cut = file_->truncate(end_); !cut) {
        file_.reset();
        return cut;
    }
    allocated_ = end_;
    dirtyTo_ = end_;
    isNameUnflushed_ = true;
    return Done();
}

Result<Done> Journal::checkpoint(std::uint64_t generation, std::string_view content) {
    using journal::FileKind;
    const auto frame = journal::frame(generation, 0, content, cryptography_);
    const auto start = journal::header(FileKind::journal, generation, cryptography_) + frame;
    auto written = files_.writeAtomically(path(kJournalName), bytesOf(start + std::string(kReserve, '\n')),
                                          FileSystem::Durability::flushed);
    if (!written) {
        return written;
    }
    // The name now stands for the new file.
    file_.reset();
    isNameUnflushed_ = false;
    generation_ = generation;
    nextFrame_ = 1;
    end_ = start.size();
    allocated_ = end_ + kReserve;
    dirtyTo_ = end_;
    if (const auto opened = open(); !opened) {
        return opened;
    }
    return files_.writeAtomically(path(kPositionName),
                                  bytesOf(journal::header(FileKind::position, generation, cryptography_) + frame),
                                  FileSystem::Durability::flushed);
}

Result<Done> Journal::append(std::string_view content, bool mayUseReserve) {
    if (!file_) {
        return posixError(EBADF);
    }
    auto frame = journal::frame(generation_, nextFrame_, content, cryptography_);
    const auto end = end_ + frame.size();
    const bool extends = !mayUseReserve && end + kReserve / 2 > allocated_;
    const auto padded = std::max(extends ? end + kReserve : end, dirtyTo_);
    frame.append(padded - end, '\n');
    auto written = file_->write(end_, bytesOf(frame));
    if (!written) {
        const auto status = files_.status(path(kJournalName));
        allocated_ = status ? std::max(allocated_, status->size) : allocated_;
        dirtyTo_ = std::min(allocated_, std::max(dirtyTo_, end_ + frame.size()));
        return written;
    }
    allocated_ = std::max(allocated_, end_ + frame.size());
    end_ = end;
    dirtyTo_ = end_;
    ++nextFrame_;
    return Done();
}

Result<Done> Journal::flush() {
    if (!file_) {
        return posixError(EBADF);
    }
    auto flushed = isNameUnflushed_ ? files_.flushFile(path(kJournalName)) : file_->flush();
    isNameUnflushed_ = isNameUnflushed_ && !flushed;
    return flushed;
}

Result<Done> Journal::remove() {
    file_.reset();
    for (const auto* const name : {kPositionName, kJournalName}) {
        const auto removed = files_.remove(path(name));
        if (!removed && removed.error().code != ENOENT) {
            return removed;
        }
    }
    return Done();
}

}  // namespace sentrova
