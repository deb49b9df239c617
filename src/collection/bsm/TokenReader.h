// Reads the tokens of one audit record, first to last. The record is hostile: no length in it is trusted, and no read
// leaves it.

#pragma once

#include "collection/bsm/Token.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace sentrova::bsm {

class TokenReader {
  public:
    // The record's bytes must outlive the reader and the views of its tokens.
    explicit TokenReader(std::span<const std::uint8_t> record) : record_(record) {}

    // Reads the next token and returns 0; returns -1 at the end of the record and at a damaged token, beyond which
    // nothing can be read. What follows a token of an unknown kind is skipped up to the record's trailer.
    int au_fetch_tok();

    // The token that was read last; valid after au_fetch_tok returned 0.
    const Token& token() const { return token_; }

    // How many bytes follow the token that was read last.
    std::size_t left() const { return record_.size() - position_; }

  private:
    std::span<const std::uint8_t> record_;
    std::size_t position_ = 0;
    Token token_;
};

}  // namespace sentrova::bsm
