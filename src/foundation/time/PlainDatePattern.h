// A date pattern of the fields that logs and file names are made of. They need no tables, and so none of the memory
// that the Unicode library takes once it has formatted a date.

#pragma once

#include <cstddef>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova {

class PlainDatePattern {
  public:
    // Nothing when the pattern has a quote, a character beyond ASCII, or a field other than yyyy, MM, MMM, dd, d, E,
    // HH, mm, ss, SSS and Z.
    static std::optional<PlainDatePattern> of(std::string_view pattern);

    // The text of a local time of the years 1969 to 9999, with English names.
    std::string format(const std::tm& time, int millisecond) const;

  private:
    // A field, or a character that stands for itself as often as it is there.
    struct Run {
        char letter = 0;
        std::size_t length = 0;
    };

    static void append(const Run& run, const std::tm& time, int millisecond, std::string& text);

    std::vector<Run> runs_;
};

}  // namespace sentrova
