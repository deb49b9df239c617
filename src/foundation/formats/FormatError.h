// What the readers and writers of data formats throw among themselves at what they cannot take. Results carry its text
// to everybody else.

#pragma once

#include <stdexcept>

namespace sentrova {

class FormatError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

}  // namespace sentrova
