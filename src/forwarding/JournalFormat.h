// The text format of the durable spool's two files, the journal and the position file. docs/formats.md describes it.
//
// A file has a header line and frames. A frame is a line with its number, the length of its content and a checksum, and
// the content itself. A frame is either whole or not there: a kill or a loss of power in the middle of a write leaves a
// frame whose checksum is wrong. Line feeds after the last frame are room that is reserved on the disk.

#pragma once

#include "foundation/value/Cryptography.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova::journal {

enum class FileKind : std::uint8_t { journal, position };

// The version that this agent writes, and the only one that it reads.
inline constexpr std::uint64_t kVersion = 1;

std::string header(FileKind kind, std::uint64_t generation, const Cryptography& cryptography);
// The frame with the number (from 0) in a file of the generation. The content must end with a line feed.
std::string frame(std::uint64_t generation, std::uint64_t number, std::string_view content,
                  const Cryptography& cryptography);

struct Frame {
    std::uint64_t number = 0;
    // A view into the parsed text.
    std::string_view content;
};

struct ParsedFile {
    enum class State {
        whole,
        // The bytes after the last whole frame are the beginning of one: its writing was cut short.
        brokenTail,
        // They were a whole frame, or something else.
        damagedTail,
        // Bytes before a whole frame make no frame, or the header is damaged.
        damaged,
        // Written by an agent that this one does not know.
        unknownVersion,
    };
    State state = State::whole;
    // Absent if the header is damaged.
    std::optional<std::uint64_t> generation;
    // In the order of their numbers, which are not repeated. Damage leaves a gap.
    std::vector<Frame> frames;
    // Where the last whole frame ends. What follows is dropped.
    std::size_t end = 0;
    // The number of bytes in broken or damaged frames.
    std::size_t lost = 0;
};

// Never throws on any text. The text must outlive the result. If the header is damaged, frames of the likely generation
// are found all the same.
ParsedFile parse(std::string_view text, FileKind kind, const Cryptography& cryptography,
                 std::uint64_t likelyGeneration = 0);

}  // namespace sentrova::journal
