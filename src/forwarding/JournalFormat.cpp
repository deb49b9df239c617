#include "forwarding/JournalFormat.h"

#include "forwarding/RecordDigest.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>

#include <fmt/format.h>

namespace sentrova::journal {

namespace {

std::string_view magic(FileKind kind) {
    return kind == FileKind::journal ? "sentrova-journal" : "sentrova-position";
}

// The words of the line at the beginning of the text; nothing unless the line is complete and has that many.
template <std::size_t kWords>
std::optional<std::array<std::string_view, kWords>> words(std::string_view text, std::size_t& length) {
    // A damaged line may be as long as the file.
    constexpr std::size_t kLongest = 200;
    const auto end = text.substr(0, kLongest).find('\n');
    if (end == std::string_view::npos) {
        return std::nullopt;
    }
    length = end + 1;
    auto rest = text.substr(0, end);
    std::array<std::string_view, kWords> words;
    for (auto& word : words) {
        const auto blank = std::min(rest.find(' '), rest.size());
        word = rest.substr(0, blank);
        rest.remove_prefix(std::min(blank + 1, rest.size()));
    }
    return rest.empty() && !words.back().empty() ? std::optional(words) : std::nullopt;
}

std::optional<std::uint64_t> decimal(std::string_view word) {
    std::uint64_t value = 0;
    const auto [end, problem] = std::from_chars(word.data(), word.data() + word.size(), value);
    return problem == std::errc() && end == word.data() + word.size() ? std::optional(value) : std::nullopt;
}

std::string headerStart(std::string_view magic, std::uint64_t version, std::uint64_t generation) {
    return fmt::format("{} {} {}", magic, version, generation);
}

// The generation and the number are part of the checksum, so that a frame of an earlier file, or one in another's
// place, is not taken for this one.
std::string checksum(std::uint64_t generation, std::uint64_t number, std::string_view content,
                     const Cryptography& cryptography) {
    return digestOf(fmt::format("{} {} {}", generation, number, digestOf(content, cryptography)), cryptography);
}

// Reads the header into the result and returns its length; nothing if it is damaged.
std::optional<std::size_t> readHeader(std::string_view text, FileKind kind, const Cryptography& cryptography,
                                      ParsedFile& file) {
    std::size_t length = 0;
    const auto parts = words<4>(text, length);
    if (!parts || (*parts)[0] != magic(kind)) {
        return std::nullopt;
    }
    const auto version = decimal((*parts)[1]);
    const auto generation = decimal((*parts)[2]);
    if (!version || !generation ||
        digestOf(headerStart(magic(kind), *version, *generation), cryptography) != (*parts)[3]) {
        return std::nullopt;
    }
    file.generation = generation;
    if (*version != kVersion) {
        file.state = ParsedFile::State::unknownVersion;
    }
    return length;
}

// The frame at the beginning of the text, if it is whole, and its length.
std::optional<std::pair<Frame, std::size_t>> frameAt(std::string_view text, std::uint64_t generation,
                                                     const Cryptography& cryptography) {
    std::size_t start = 0;
    const auto parts = words<4>(text, start);
    if (!parts || (*parts)[0] != "#") {
        return std::nullopt;
    }
    const auto number = decimal((*parts)[1]);
    const auto length = decimal((*parts)[2]);
    if (!number || !length || *length > text.size() - start) {
        return std::nullopt;
    }
    const auto content = text.substr(start, *length);
    if (!content.ends_with('\n') || checksum(generation, *number, content, cryptography) != (*parts)[3]) {
        return std::nullopt;
    }
    return std::pair(Frame{.number = *number, .content = content}, start + content.size());
}

bool isReserve(std::string_view text) {
    return text.find_first_not_of('\n') == std::string_view::npos;
}

// Whether the text may be a frame whose writing was cut short: not all of its bytes are there.
bool isCutShort(std::string_view text) {
    std::size_t start = 0;
    const auto parts = words<4>(text, start);
    const auto length = parts ? decimal((*parts)[2]) : std::nullopt;
    if (!length) {
        return isReserve(text.substr(std::min(text.find('\n'), text.size())));
    }
    // The content ends with a line feed, like the reserve.
    return text.find_last_not_of('\n') + 2 < start + *length;
}

}  // namespace

std::string header(FileKind kind, std::uint64_t generation, const Cryptography& cryptography) {
    const auto start = headerStart(magic(kind), kVersion, generation);
    return fmt::format("{} {}\n", start, digestOf(start, cryptography));
}

std::string frame(std::uint64_t generation, std::uint64_t number, std::string_view content,
                  const Cryptography& cryptography) {
    auto text =
        fmt::format("# {} {} {}\n", number, content.size(), checksum(generation, number, content, cryptography));
    text.reserve(text.size() + content.size());
    text += content;
    return text;
}

// After bytes that are no whole frame, each line that begins like a frame is tried. A file may be made of such lines,
// each of which claims most of the file, so only kMostTried of them are tried.
ParsedFile parse(std::string_view text, FileKind kind, const Cryptography& cryptography,
                 std::uint64_t likelyGeneration) {
    constexpr int kMostTried = 1000;
    ParsedFile file;
    const auto start = readHeader(text, kind, cryptography, file);
    if (file.state == ParsedFile::State::unknownVersion) {
        return file;
    }
    const auto generation = file.generation.value_or(likelyGeneration);
    file.end = start.value_or(0);
    bool isDamaged = !start;
    int tried = 0;
    for (std::size_t at = file.end; !isReserve(text.substr(at));) {
        const auto expected = file.frames.empty() ? 0 : file.frames.back().number + 1;
        const auto found = frameAt(text.substr(at), generation, cryptography);
        if (found && found->first.number >= expected) {
            isDamaged = isDamaged || found->first.number != expected || at != file.end;
            file.lost += at - file.end;
            file.frames.push_back(found->first);
            at += found->second;
            file.end = at;
            continue;
        }
        const auto next = ++tried < kMostTried ? text.find("\n# ", at) : std::string_view::npos;
        if (next == std::string_view::npos) {
            file.lost += text.find_last_not_of('\n') + 1 - file.end;
            file.state =
                isCutShort(text.substr(file.end)) ? ParsedFile::State::brokenTail : ParsedFile::State::damagedTail;
            break;
        }
        at = next + 1;
    }
    if (isDamaged) {
        file.state = ParsedFile::State::damaged;
    }
    return file;
}

}  // namespace sentrova::journal
