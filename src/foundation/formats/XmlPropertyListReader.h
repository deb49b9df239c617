// Reads the XML form of property lists (version 1.0), in one pass and in time linear in its length.
//
// Accepts only the XML that property lists use. Refuses entity definitions and unknown elements. Ignores everything
// after the root element. For one thread at a time.

#pragma once

#include "foundation/value/Value.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace sentrova {

class XmlPropertyListReader {
  public:
    // The text must be UTF-8 without a byte order mark, and must outlive the reader.
    explicit XmlPropertyListReader(std::string_view text) : text_(text) {}

    // The root value. Call it once. Throws FormatError on malformed input.
    Value read();

  private:
    struct Tag {
        std::string_view name;
        bool closing = false;
        // <name/>: has neither content nor a closing tag.
        bool empty = false;
    };

    Value readElement(const Tag& tag, std::size_t depth);
    Value readContainer(const Tag& tag, std::size_t depth);
    Array readArray(std::size_t depth);
    Dictionary readDictionary(std::size_t depth);
    // The text up to the closing tag, with entities resolved.
    std::string readText(const Tag& tag);
    void readCharacters(std::string& text);
    void readEntity(std::string& text);

    // The next tag. Only blanks, comments, processing instructions and the document type may precede it.
    Tag nextTag();
    Tag readTag();
    void expectClosing(std::string_view name);
    void skipDocumentType();
    void skipBlanks();
    void skipBetweenTags();
    bool skipComment();

    bool atEnd() const { return at_ >= text_.size(); }
    bool accept(std::string_view token);
    // Returns the text before the token and moves behind the token.
    std::string_view takeThrough(std::string_view token);
    [[noreturn]] void fail(std::string_view why) const;

    std::string_view text_;
    std::size_t at_ = 0;
    std::size_t elements_ = 0;
};

}  // namespace sentrova
