#include "server/EventTable.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace sentrova::testing {

namespace {

using Json = nlohmann::json;

constexpr std::array<std::size_t, 6> kWidths = {19, 14, 18, 16, 20, 40};
constexpr const char* kAbsent = "-";

bool startsCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

std::string toWidth(std::string_view text, std::size_t width) {
    const auto length = static_cast<std::size_t>(std::ranges::count_if(text, startsCharacter));
    if (length <= width) {
        return std::string(text) + std::string(width - length, ' ');
    }
    std::size_t kept = 0;
    for (std::size_t characters = 0; kept < text.size(); ++kept) {
        if (startsCharacter(text[kept]) && ++characters == width) {
            break;
        }
    }
    return std::string(text.substr(0, kept)) + "…";
}

std::string line(const std::array<std::string, kWidths.size()>& cells) {
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        line += (i ? "  " : "") + toWidth(cells[i], kWidths[i]);
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

std::string text(const Json& event, const char* key) {
    const auto found = event.find(key);
    if (found == event.end() || found->is_null()) {
        return kAbsent;
    }
    return withoutControls(found->is_string() ? found->get<std::string>() : found->dump());
}

std::string time(const Json& event) {
    const auto found = event.find("record_time");
    if (found == event.end() || !found->is_number_integer()) {
        return text(event, "record_time");
    }
    const std::time_t seconds = found->get<std::time_t>();
    std::tm local{};
    if (!localtime_r(&seconds, &local) || local.tm_year > 9999 - 1900) {
        return text(event, "record_time");
    }
    return fmt::format("{:%Y-%m-%d %H:%M:%S}", local);
}

struct Kind {
    std::int64_t number;
    std::string_view word;
};

constexpr std::array kKinds = std::to_array<Kind>({{6152, "login"},
                                                   {6153, "logout"},
                                                   {6154, "telnet"},
                                                   {6158, "rsh"},
                                                   {6159, "su"},
                                                   {6172, "ssh"},
                                                   {32800, "openssh"},
                                                   {45021, "window login"},
                                                   {45022, "window logout"},
                                                   {45023, "authentication"},
                                                   {45026, "authorization"},
                                                   {45028, "sudo"}});

// Checks the table: each word fits its column and is unique. A word cut to its column could read like another one.
constexpr bool kindsAreToldApart() {
    for (std::size_t i = 0; i < kKinds.size(); ++i) {
        if (kKinds[i].word.size() > kWidths[1]) {
            return false;
        }
        for (std::size_t j = 0; j < i; ++j) {
            if (kKinds[i].word == kKinds[j].word || kKinds[i].number == kKinds[j].number) {
                return false;
            }
        }
    }
    return true;
}
static_assert(kindsAreToldApart());

std::string name(const Json& event) {
    const auto found = event.find("EventCode");
    if (found == event.end() || !found->is_number_integer()) {
        return text(event, "EventCode");
    }
    const auto known = std::ranges::find(kKinds, found->get<std::int64_t>(), &Kind::number);
    return known == kKinds.end() ? text(event, "EventCode") : std::string(known->word);
}

std::uint32_t decode(std::string_view character) {
    const auto first = static_cast<unsigned char>(character.front());
    std::uint32_t code = character.size() == 1 ? first : first & (0x7FU >> character.size());
    for (const char byte : character.substr(1)) {
        code = (code << 6U) | (static_cast<unsigned char>(byte) & 0x3FU);
    }
    return code;
}

bool actsOnATerminal(std::uint32_t code) {
    return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x061C || code == 0x200E || code == 0x200F ||
           (code >= 0x2028 && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
}

}  // namespace

std::string withoutControls(std::string_view text) {
    std::string harmless;
    while (!text.empty()) {
        const auto next = std::find_if(text.begin() + 1, text.end(), startsCharacter);
        const auto character = text.substr(0, static_cast<std::size_t>(next - text.begin()));
        const auto code = decode(character);
        harmless += actsOnATerminal(code) ? fmt::format("\\u{:04x}", code) : std::string(character);
        text.remove_prefix(character.size());
    }
    return harmless;
}

std::string eventTableHeader() {
    return line({"TIME", "EVENT", "USER", "DOMAIN", "WORKSTATION", "RESULT"});
}

std::string eventTableLine(const std::string& event) {
    const auto parsed = Json::parse(event, nullptr, false);
    if (!parsed.is_object()) {
        return withoutControls(event);
    }
    return line({time(parsed), name(parsed), text(parsed, "UserName"), text(parsed, "DomainName"),
                 text(parsed, "Source Workstation"), text(parsed, "return_errval")});
}

}  // namespace sentrova::testing
