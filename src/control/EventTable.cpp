#include "control/EventTable.h"

#include "collection/EventSelection.h"
#include "control/TimeArgument.h"

#include <algorithm>
#include <array>
#include <ctime>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

constexpr std::size_t kHeld = 500;
constexpr std::size_t kWidestColumn = 40;

// A character of UTF-8 text. The length is that of its bytes; 0 for a byte that begins no character.
struct Character {
    char32_t code = 0;
    std::size_t length = 0;
};

Character characterAt(std::string_view text, std::size_t at) {
    const auto byte = [&](std::size_t i) -> std::uint32_t { return static_cast<unsigned char>(text[i]); };
    const auto lead = byte(at);
    if (lead < 0x80) {
        return {lead, 1};
    }
    const std::size_t length = lead >= 0xF0 && lead < 0xF5 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 ? 2 : 0;
    if (length == 0 || lead >= 0xF5 || at + length > text.size()) {
        return {};
    }
    std::uint32_t code = lead & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(at + i) & 0xC0U) != 0x80) {
            return {};
        }
        code = (code << 6U) | (byte(at + i) & 0x3FU);
    }
    const bool isOverlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    const bool isSurrogate = code >= 0xD800 && code < 0xE000;
    return isOverlong || isSurrogate || code > 0x10FFFF ? Character{} : Character{code, length};
}

// Beyond ASCII: C1 controls, line and paragraph separators, and what changes the writing direction.
bool isControl(char32_t code) {
    return (code >= 0x80 && code < 0xA0) || code == 0x200E || code == 0x200F || (code >= 0x2028 && code <= 0x202E) ||
           (code >= 0x2066 && code <= 0x2069) || code == 0x061C || code == 0xFEFF;
}

// Characters that a terminal shows in two columns: East Asian ones and emoji.
bool isWide(char32_t code) {
    return (code >= 0x1100 && code <= 0x115F) || (code >= 0x2E80 && code <= 0xA4CF) ||
           (code >= 0xAC00 && code <= 0xD7A3) || (code >= 0xF900 && code <= 0xFAFF) ||
           (code >= 0xFE30 && code <= 0xFE6F) || (code >= 0xFF00 && code <= 0xFF60) ||
           (code >= 0x1F300 && code <= 0x1FAFF) || (code >= 0x20000 && code <= 0x3FFFD);
}

// The beginning of a line, cut at a width.
std::string_view cut(std::string_view line, std::size_t width) {
    std::size_t taken = 0;
    for (std::size_t at = 0; at < line.size();) {
        const auto [code, length] = characterAt(line, at);
        taken += isWide(code) ? 2U : 1U;
        if (taken > width) {
            return line.substr(0, at);
        }
        at += std::max<std::size_t>(length, 1);
    }
    return line;
}

std::string zoneOf(std::int64_t seconds) {
    const auto fields = localFields(seconds);
    std::array<char, 64> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Z (UTC%z)", &fields)};
}

std::string eventName(const Value& number) {
    const auto name = EventSelection::nameOf(static_cast<std::uint16_t>(number.integerValue()));
    return name.empty() ? number.description() : std::string(name);
}

// The titles of the columns, in order. The last two are not padded and take the rest of the line.
constexpr std::array<std::string_view, 9> kTitles = {"DATE",   "TIME", "EVENT", "USER",    "AUDIT USER",
                                                     "RESULT", "FROM", "TEXT",  "EXCLUDED"};
// What fits most fields, for a table whose lines do not wait.
constexpr std::array<std::size_t, 9> kUsualWidths = {10, 8, 14, 12, 12, 24, 15, 40, 8};

}  // namespace

std::string EventTable::visible(std::string_view text) {
    std::string shown;
    for (std::size_t at = 0; at < text.size();) {
        const auto [code, length] = characterAt(text, at);
        if (length == 0 || code < 0x20 || code == 0x7F) {
            fmt::format_to(std::back_inserter(shown), "\\x{:02x}", static_cast<unsigned char>(text[at]));
            ++at;
            continue;
        }
        if (isControl(code)) {
            fmt::format_to(std::back_inserter(shown), "\\u{:04x}", static_cast<std::uint32_t>(code));
        } else {
            shown += text.substr(at, length);
        }
        at += length;
    }
    return shown;
}

std::size_t EventTable::columns(std::string_view text) {
    std::size_t taken = 0;
    for (std::size_t at = 0; at < text.size();) {
        const auto [code, length] = characterAt(text, at);
        taken += isWide(code) ? 2U : 1U;
        at += std::max<std::size_t>(length, 1);
    }
    return taken;
}

EventTable::EventTable(const TableLayout& layout) : layout_(layout) {
    const std::size_t count = layout.withExcluded ? kTitles.size() : kTitles.size() - 1;
    for (std::size_t i = 0; i < count; ++i) {
        widths_.push_back(layout.isLive ? kUsualWidths.at(i) : kTitles.at(i).size());
    }
}

EventTable::Row EventTable::rowOf(const Dictionary& event) const {
    const auto time = localFields(event["record_time"].integerValue());
    const auto field = [&event](std::string_view key) {
        const auto* const value = event.find(key);
        auto text = value ? visible(value->description()) : "";
        return text.empty() ? "-" : text;
    };
    Row row = {fmt::format("{}-{:02}-{:02}", 1900 + time.tm_year, 1 + time.tm_mon, time.tm_mday),
               fmt::format("{:02}:{:02}:{:02}", time.tm_hour, time.tm_min, time.tm_sec),
               eventName(event["record_event"]),
               field("UserName"),
               field("subject_audit-uid"),
               field("return_errval"),
               field("subject_host-ip"),
               field("text_text")};
    if (layout_.withExcluded) {
        row.push_back(field(kExcluded));
    }
    return row;
}

void EventTable::begin(std::string& text) {
    if (layout_.isLive) {
        writeHeld(text);
    }
}

void EventTable::write(const Value& event, std::string& text) {
    const auto& keys = *event.dictionary();
    const auto time = keys["record_time"].integerValue();
    first_ = first_.value_or(time);
    last_ = time;
    ++events_;
    auto row = rowOf(keys);
    if (isHeadWritten_) {
        writeRow(row, text);
        return;
    }
    held_.push_back(std::move(row));
    if (held_.size() == kHeld) {
        writeHeld(text);
    }
}

void EventTable::end(std::string& text) {
    if (!isHeadWritten_) {
        writeHeld(text);
    }
    if (first_) {
        text += fmt::format("{} {}, from {} to {}\n", events_, events_ == 1 ? "event" : "events", timeText(*first_),
                            timeText(last_));
    } else {
        text += "No events\n";
    }
}

void EventTable::writeHeld(std::string& text) {
    isHeadWritten_ = true;
    for (const auto& row : held_) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths_[i] = std::max(widths_[i], std::min(columns(row[i]), kWidestColumn));
        }
    }
    text += fmt::format("Times are local, in {}\n", zoneOf(first_.value_or(std::time(nullptr))));
    writeRow(Row(kTitles.begin(), kTitles.begin() + static_cast<std::ptrdiff_t>(widths_.size())), text);
    for (const auto& row : held_) {
        writeRow(row, text);
    }
    held_.clear();
}

void EventTable::writeRow(const Row& row, std::string& text) const {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
        line += row[i];
        if (i + 1 < row.size()) {
            const auto taken = columns(row[i]);
            line.append(widths_[i] > taken ? widths_[i] - taken + 2 : 2, ' ');
        }
    }
    text += layout_.width > 0 ? cut(line, layout_.width) : std::string_view(line);
    text += '\n';
}

}  // namespace sentrova::control
