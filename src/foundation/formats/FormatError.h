// Thrown inside the readers and writers of data formats for input that they refuse. Their callers receive the text in a
// Result.

#pragma once

#include <stdexcept>

namespace sentrova {

class FormatError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace sentrova
