// Reads the tokens of one audit record, first to last. The record is untrusted: no length in it is believed, and no
// read leaves it.

#pragma once

#include "collection/bsm/Token.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace sentrova::bsm {

class TokenReader {
  public:
    // The bytes must outlive the reader and the views in its tokens.
    explicit TokenReader(std::span<const std::uint8_t> record) : record_(record) {}

    // Reads the next token and returns 0. Returns -1 at the end of the record and at a damaged token; nothing can be
    // read after it. After a token of an unknown kind, the reader skips to the record's trailer.
    int au_fetch_tok();

    // The last token; valid after au_fetch_tok returned 0.
    const Token& token() const { return token_; }

    // The number of bytes after the last token.
    std::size_t left() const { return record_.size() - position_; }

  private:
    std::span<const std::uint8_t> record_;
    std::size_t position_ = 0;
    Token token_;
};

}  // namespace sentrova::bsm
