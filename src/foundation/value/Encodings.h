// Encodings other than UTF-8 and UTF-16, and the ASCII form of characters, provided by a library of the host.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace sentrova {

// Safe from any thread. Published as the Current one by the agent.
class Encodings {
  public:
    virtual ~Encodings() = default;

    // The character without its diacritical marks (e for é); empty for a mark alone; "?" for a character without an
    // ASCII form. Also "?" where the form would be a quotation mark or a backslash, which could end a quoted text.
    virtual std::string asciiForm(char32_t character) const = 0;

    // The length in bytes of the shortest character in the encoding. Absent for an unknown encoding.
    virtual std::optional<std::size_t> shortestCharacter(const std::string& encoding) const = 0;

    struct Decoded {
        // UTF-8, up to the first byte that is invalid in the encoding.
        std::string text;
        bool isWhole = true;
    };
    // Absent for an unknown encoding.
    virtual std::optional<Decoded> decode(std::string_view bytes, const std::string& encoding) const = 0;

  protected:
    Encodings() = default;
    Encodings(const Encodings&) = default;
    Encodings& operator=(const Encodings&) = default;
};

}  // namespace sentrova
