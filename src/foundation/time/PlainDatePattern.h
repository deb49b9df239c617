// A date pattern with only the fields that logs and file names use. Formatting it needs no Unicode library, which would
// take much memory from its first use on.

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
    // Absent if the pattern has a quote, a character beyond ASCII, or a field other than yyyy, MM, MMM, dd, d, E, HH,
    // mm, ss, SSS and Z.
    static std::optional<PlainDatePattern> of(std::string_view pattern);

    // The text of a local time in the years 1969 to 9999, with English names.
    std::string format(const std::tm& time, int millisecond) const;

  private:
    // A field, or a repeated literal character.
    struct Run {
        char letter = 0;
        std::size_t length = 0;
    };

    static void append(const Run& run, const std::tm& time, int millisecond, std::string& text);

    std::vector<Run> runs_;
};

}  // namespace sentrova
