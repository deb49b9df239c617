// Text in other encodings than UTF-8 and UTF-16, and its ASCII form: what a library of the host knows.

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

    // The character without its marks (e for é): empty for a mark alone, "?" for a character without an ASCII form and
    // for one whose form would be a quotation mark or a backslash, which could end or escape a quoted text.
    virtual std::string asciiForm(char32_t character) const = 0;

    // How many bytes the shortest character of the encoding has; nothing for a name that is no known encoding.
    virtual std::optional<std::size_t> shortestCharacter(const std::string& encoding) const = 0;

    struct Decoded {
        // UTF-8, up to the first byte that is not in the encoding.
        std::string text;
        bool isWhole = true;
    };
    // Nothing for a name that is no known encoding.
    virtual std::optional<Decoded> decode(std::string_view bytes, const std::string& encoding) const = 0;

  protected:
    Encodings() = default;
    Encodings(const Encodings&) = default;
    Encodings& operator=(const Encodings&) = default;
};

}  // namespace sentrova
