#include "control/SpoolList.h"

#include "control/EventTable.h"
#include "control/StatusFormats.h"
#include "control/TimeArgument.h"
#include "foundation/formats/Json.h"
#include "foundation/value/Text.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <stdexcept>

#include <fmt/format.h>

namespace sentrova::control {

namespace {

// The last column is not padded.
using Row = std::array<std::string, 7>;
using Widths = std::array<std::size_t, 7>;
constexpr std::array<std::string_view, 7> kTitles = {"NAME", "STATE", "AGE", "EVENTS", "SIZE", "SINCE", "WHY"};

const char* nameOf(SpooledFile::State state) {
    switch (state) {
        case SpooledFile::State::waiting:
            return "waiting";
        case SpooledFile::State::refused:
            return "refused";
        case SpooledFile::State::kept:
            break;
    }
    return "kept";
}

std::int64_t ageOf(const SpooledFile& file, std::int64_t now) {
    return std::max<std::int64_t>(now - file.since.value_or(now), 0);
}

Row rowOf(const SpooledFile& file, std::int64_t now) {
    return {EventTable::visible(file.name),
            nameOf(file.state),
            file.since ? durationText(ageOf(file, now)) : "-",
            file.events ? std::to_string(*file.events) : "?",
            bytesText(static_cast<std::int64_t>(file.bytes)),
            file.since ? timeText(*file.since) : "-",
            EventTable::visible(file.reason)};
}

std::string lineOf(const Row& row, const Widths& widths) {
    std::string line;
    for (std::size_t i = 0; i + 1 < row.size(); ++i) {
        line += row.at(i);
        line.append(widths.at(i) - EventTable::columns(row.at(i)) + 2, ' ');
    }
    return line + row.back();
}

Value jsonOf(const SpooledFile& file, std::int64_t now) {
    // Names of files come from the disk and may be any bytes.
    const auto name = isValidUtf8(file.name) ? file.name : EventTable::visible(file.name);
    return Dictionary{{"name", name},
                      {"state", nameOf(file.state)},
                      {"events", file.events ? Value(*file.events) : Value()},
                      {"bytes", file.bytes},
                      {"since", file.since ? Value(*file.since) : Value()},
                      {"age", file.since ? Value(ageOf(file, now)) : Value()},
                      {"reason", EventTable::visible(file.reason)},
                      {"refusals", file.refusals},
                      {"http_status", file.status ? Value(*file.status) : Value()}};
}

std::string plural(std::uint64_t count, std::string_view noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::string tableOf(const std::vector<SpooledFile>& files, std::int64_t now, const Console& console) {
    std::vector<Row> rows = {Row()};
    std::ranges::copy(kTitles, rows.front().begin());
    std::ranges::transform(files, std::back_inserter(rows), [now](const auto& file) { return rowOf(file, now); });
    Widths widths{};
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            widths.at(i) = std::max(widths.at(i), EventTable::columns(row.at(i)));
        }
    }
    auto text = console.coloured(Console::Colour::bold, lineOf(rows.front(), widths)) + "\n";
    for (std::size_t i = 0; i < files.size(); ++i) {
        const auto line = lineOf(rows[i + 1], widths);
        const bool isSent = files[i].state == SpooledFile::State::waiting;
        text += (isSent ? line : console.coloured(Console::Colour::yellow, line)) + "\n";
    }
    return text;
}

std::string totalOf(const std::vector<SpooledFile>& files) {
    std::uint64_t events = 0;
    std::uint64_t bytes = 0;
    for (const auto& file : files) {
        events += file.events.value_or(0);
        bytes += file.bytes;
    }
    return fmt::format("{}, {}, {}\n", plural(files.size(), "file"), plural(events, "event"),
                       bytesText(static_cast<std::int64_t>(bytes)));
}

}  // namespace

std::string spoolText(const std::vector<SpooledFile>& files, std::optional<std::uint64_t> openEvents, std::int64_t now,
                      const Console& console) {
    auto text = files.empty() ? "The spool is empty: no batch waits, and none was refused.\n"
                              : tableOf(files, now, console) + totalOf(files);
    if (openEvents.value_or(0) > 0) {
        text += fmt::format("The journal holds {} for the next batch.\n", plural(*openEvents, "event"));
    }
    return text;
}

Dictionary spoolJson(const std::vector<SpooledFile>& files, std::optional<std::uint64_t> openEvents, std::int64_t now) {
    Array list;
    std::ranges::transform(files, std::back_inserter(list), [now](const auto& file) { return jsonOf(file, now); });
    return {{"files", std::move(list)}, {"open_events", openEvents ? Value(*openEvents) : Value()}};
}

std::string eventsJson(std::string_view name, const Array& events) {
    const auto written = [](const Value& value) {
        auto text = Json::write(value);
        if (!text) {
            throw std::runtime_error(text.error().description);
        }
        return *std::move(text);
    };
    std::string text = written(Dictionary{{"name", name}});
    text.back() = ',';
    text += "\"events\":[\n";
    for (std::size_t i = 0; i < events.size(); ++i) {
        text += written(events[i]) + (i + 1 < events.size() ? ",\n" : "\n");
    }
    return text + "]}\n";
}

}  // namespace sentrova::control
