// Events as a table for people.

#pragma once

#include "control/EventWriter.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova::control {

// A line with the zone and one with the columns' names, a line per event, and a line with the number of events. No
// field can break a line or change the terminal's state. Times are local.
class EventTable final : public EventWriter {
  public:
    explicit EventTable(const TableLayout& layout);

    void begin(std::string& text) override;
    void write(const Value& event, std::string& text) override;
    void end(std::string& text) override;

    // The text with control characters, line separators and changes of the writing direction made visible: "\x0d",
    // "\u2028". Each byte that is not UTF-8 becomes "\xNN".
    static std::string visible(std::string_view text);
    // The number of terminal columns that a visible text takes.
    static std::size_t columns(std::string_view text);

  private:
    using Row = std::vector<std::string>;

    Row rowOf(const Dictionary& event) const;
    void writeHeld(std::string& text);
    void writeRow(const Row& row, std::string& text) const;

    const TableLayout layout_;
    std::vector<std::size_t> widths_;
    // The first rows, until the widths are known. Later and longer fields shift the rest of their line.
    std::vector<Row> held_;
    bool isHeadWritten_ = false;
    std::size_t events_ = 0;
    std::optional<std::int64_t> first_;
    std::int64_t last_ = 0;
};

}  // namespace sentrova::control
