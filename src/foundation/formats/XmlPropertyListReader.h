// Reads the XML form of property lists (version 1.0), in one pass and in time linear in its length.
//
// It accepts what property lists are made of, and refuses the rest of XML: definitions of entities, elements of other
// names. Whatever follows the root element is not looked at.

#pragma once

#include "foundation/value/Value.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace sentrova {

class XmlPropertyListReader {
  public:
    // The text is in UTF-8 without a byte order mark, and must outlive the reader.
    explicit XmlPropertyListReader(std::string_view text) : text_(text) {}

    // The root value; only once. Throws FormatError on malformed input.
    Value read();

  private:
    struct Tag {
        std::string_view name;
        bool closing = false;
        // <name/>: there is neither content nor a closing tag.
        bool empty = false;
    };

    Value readElement(const Tag& tag, std::size_t depth);
    Value readContainer(const Tag& tag, std::size_t depth);
    Array readArray(std::size_t depth);
    Dictionary readDictionary(std::size_t depth);
    // The text up to the closing tag, with its entities resolved.
    std::string readText(const Tag& tag);
    void readCharacters(std::string& text);
    void readEntity(std::string& text);

    // The next tag after blanks, comments and the like; an error when there is something else.
    Tag nextTag();
    Tag readTag();
    void expectClosing(std::string_view name);
    void skipDocumentType();
    void skipBlanks();
    // Skips blanks, comments, processing instructions and the document type.
    void skipBetweenTags();
    bool skipComment();

    bool atEnd() const { return at_ >= text_.size(); }
    bool accept(std::string_view token);
    // What lies before the token; moves behind the token.
    std::string_view takeThrough(std::string_view token);
    [[noreturn]] void fail(std::string_view why) const;

    std::string_view text_;
    std::size_t at_ = 0;
    std::size_t elements_ = 0;
};

}  // namespace sentrova
